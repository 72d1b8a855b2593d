#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/failing_calls.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/thread_count.h"
#include "tests/support/failing_allocations.h"

namespace {

using Threads = FailingAllocations::Threads;
using Extent = FailingAllocations::Extent;

std::shared_ptr<HXKQueue> makeLoop() {
    return HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
}

class LoopFailure : public testing::Test {
protected:
    LogRecorder log{LogLevel::Error};
};

// Each object of the loop is made by an allocation of its own, so failing them one after the
// other gives the messages in their order.
TEST_F(LoopFailure, InitialisationSaysWhatCouldNotBeMadeAndLeavesNothingOpen) {
    makeLoop();  // what is made once per process is made
    size_t before = openDescriptors();
    std::vector<std::string> seen;
    for (uint64_t nth = 1;; ++nth) {
        std::optional<FailingAllocations> failing(nth);
        const auto loop = makeLoop();
        failing->end();
        const bool happened = failing->happened();
        failing.reset();
        if (!happened) {
            EXPECT_NE(loop, nullptr);
            break;
        }
        if (loop) ++before;  // made without its name for the log; only stop closes its queue
        EXPECT_EQ(openDescriptors(), before);
        const auto errors = log.errors();
        if (!errors.empty() && (seen.empty() || seen.back() != errors.back()))
            seen.push_back(errors.back());
    }
    EXPECT_EQ(seen,
              (std::vector<std::string>{
                  "error cannot initialize timer lock", "error cannot initialize timer id dict",
                  "error cannot initialize timer obj dict", "error cannot initialize lock",
                  "error cannot initialize change list", "error cannot initialize stop list",
                  "error cannot initialize active list", "error cannot initialize kqueue",
                  "error cannot initialize io thread"}));
}

TEST_F(LoopFailure, WithoutAKernelQueueThereIsNoLoop) {
    const size_t before = openDescriptors();
    failingCalls.createQueue = EMFILE;
    EXPECT_EQ(makeLoop(), nullptr);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error cannot initialize kqueue"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LoopFailure, WithoutAThreadThereIsNoLoopAndItsQueueIsClosed) {
    const size_t before = openDescriptors();
    failingCalls.createThread = EAGAIN;
    EXPECT_EQ(makeLoop(), nullptr);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error cannot initialize io thread"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LoopFailure, ThreadWithoutItsBuffersEnds) {
    const std::string line = "error cannot initialize event list";
    for (const uint64_t nth : {1U, 2U}) {
        LogRecorder own{LogLevel::Error};
        const auto loop = makeLoop();
        const FailingAllocations failing(nth, Extent::OnlyThatOne, Threads::All);
        loop->start();
        EXPECT_TRUE(own.waitFor(line));
        loop->stop();
    }
}

TEST_F(LoopFailure, ThreadWithoutItsFirstCopyOfTheSourcesEnds) {
    const std::string line = "error cannot initialize active list";
    LogRecorder own{LogLevel::Error};
    const auto loop = makeLoop();
    const size_t running = threadCount();  // a loop that is not started has its thread already
    {
        const FailingAllocations failing(3, Extent::OnlyThatOne, Threads::All);
        loop->start();
        EXPECT_TRUE(own.waitFor(line));
    }
    EXPECT_TRUE(waitForThreads(running - 1));
    loop->stop();
}

// How many allocations it takes to make a stream socket and register it.
uint64_t allocationsOfAFactory(int sock) {
    const auto loop = makeLoop();
    for (uint64_t nth = 1;; ++nth) {
        const FailingAllocations failing(nth);
        const auto source = loop->createStreamSocket(sock, false);
        if (!failing.happened()) return nth - 1;
        if (source) loop->stopObject(source);
    }
}

// Returns when a source that was made for it has been stopped.
void waitForAStop(HXKQueue& loop) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    loop.stopObject(loop.createStreamSocket(ends[0], true));
    char byte = 0;
    EXPECT_EQ(read(ends[1], &byte, 1), 0);
    close(ends[1]);
}

// The source is registered by another thread, whose own allocations come first; the next one is
// the I/O thread's.
TEST_F(LoopFailure, ThreadWithoutAFreshCopyOfTheSourcesEnds) {
    const std::string line = "error copying active list error";
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const auto loop = makeLoop();
    const size_t running = threadCount();
    const uint64_t nth = allocationsOfAFactory(ends[0]) + 1;
    LogRecorder own{LogLevel::Error};
    loop->start();
    // Between two stops lies a whole iteration, and with it all that the thread makes once.
    waitForAStop(*loop);
    waitForAStop(*loop);
    {
        const FailingAllocations failing(nth, Extent::OnlyThatOne, Threads::All);
        EXPECT_NE(loop->createStreamSocket(ends[0], false), nullptr);
        EXPECT_TRUE(own.waitFor(line));
    }
    EXPECT_EQ(own.errors(), std::vector<std::string>{line});
    EXPECT_TRUE(waitForThreads(running - 1));
    loop->stop();
    close(ends[0]);
    close(ends[1]);
}

TEST_F(LoopFailure, ChangeSourceAndStopThatCannotBeKeptAreLogged) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const auto loop = makeLoop();
    const auto source = loop->createStreamSocket(ends[0], false);
    struct kevent change;
    EV_SET(&change, ends[0], EVFILT_READ, EV_ADD, 0, 0, static_cast<void*>(source.get()));
    for (int i = 0; i < 100; ++i)
        loop->submitChange(&change);  // as many as there is room for from the start
    {
        const FailingAllocations failing(1);
        loop->submitChange(&change);
    }
    {
        const FailingAllocations failing(1);
        loop->stopObject(source);
    }
    const auto stranger = HXKQueueStreamSocket::initWithSocket(ends[1], false, loop,
                                                               logCreate("org.example", "kqueue"));
    {
        const FailingAllocations failing(1);
        loop->addActiveObject(stranger);
    }
    const std::string tag = tagOf(source.get());
    EXPECT_EQ(log.errors(),
              (std::vector<std::string>{"error " + tag + ": cannot submit change",
                                        "error " + tag + ": cannot stop object",
                                        "error " + tagOf(stranger.get()) + ": cannot be added"}));
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
