// A wall clock that is set back means nothing to a loop.

#include "tests/kqueue/wall_clock.h"

#include <unistd.h>

#include <chrono>
#include <ctime>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/loop_fixture.h"

namespace {

using Monotonic = std::chrono::steady_clock;
using WallClock = LoopTest;

TEST(TheWallClockOfTheseTests, GoesBackAndIsCounted) {
    const size_t before = looksAtTheWallClock();
    const time_t first = std::time(nullptr);
    const auto second = std::chrono::system_clock::now();
    EXPECT_LT(std::chrono::system_clock::to_time_t(second), first);
    EXPECT_EQ(looksAtTheWallClock(), before + 2);
}

TEST_F(WallClock, IsLookedAtByNothingTheLoopDoes) {
    const Monotonic::time_point start = Monotonic::now();
    const size_t before = looksAtTheWallClock();

    EventRecorder periodic;
    const auto timer = loop->createTimer(3, false);
    loop->startObject(timer, periodic.block());
    EventRecorder once;
    const auto oneShot = loop->createTimer(20, true);
    loop->startObject(oneShot, once.block());
    EventRecorder events;
    const Stream stream = makeStream();
    loop->startObject(stream.source, events.block());
    ASSERT_EQ(::write(stream.peer, "hello", 5), 5);
    ASSERT_TRUE(events.waitForBytes(5));
    loop->write(stream.source, "hello", 5);
    ASSERT_TRUE(periodic.waitFor(HXKQueueEventData, 10));
    ASSERT_TRUE(once.waitFor(HXKQueueEventData));
    EXPECT_GE(Monotonic::now() - start, std::chrono::milliseconds(20));
    loop->stopObject(stream.source);
    stopLoop();

    EXPECT_EQ(looksAtTheWallClock(), before);
    close(stream.peer);
}

// Each time that the timer fires its owner sets the clock back.
TEST_F(WallClock, ThatIsSetBackHoldsUpNoTimer) {
    const Monotonic::time_point start = Monotonic::now();
    EventRecorder ticks;
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, ticks.block([](const auto& /*event*/, auto* /*dropSize*/) {
        return std::time(nullptr) > 0;
    }));
    ASSERT_TRUE(ticks.waitFor(HXKQueueEventData, 5));
    EXPECT_GE(Monotonic::now() - start, std::chrono::milliseconds(25));
    stopLoop();
}

}  // namespace
