#include "kqueue/HXKQueueTimer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/loop_fixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class Timer : public LoopTest {
protected:
    // The identifier that the log gives for the timer's creation.
    [[nodiscard]] int identOf(const std::shared_ptr<HXKQueueTimer>& timer) const {
        const std::string start = "debug " + tagOf(timer.get()) + ": timer #";
        int ident = -1;
        for (const std::string& line : log.lines())
            if (line.rfind(start, 0) == 0) ident = std::stoi(line.substr(start.size()));
        return ident;
    }

    // Looks at them once: a timer may go on meanwhile.
    [[nodiscard]] bool saidNothingButData() const {
        return std::ranges::all_of(events.codes(),
                                   [](int32_t code) { return code == HXKQueueEventData; });
    }

    EventRecorder events;
};

TEST_F(Timer, FirstOfALoopHasIdentZeroAndTheNextOne) {
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 0);
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 1);
}

TEST_F(Timer, LogsItsCreationAndItsStop) {
    const auto timer = loop->createTimer(1000, false);
    EXPECT_TRUE(log.has("debug " + tagOf(timer.get()) + ": timer #0 created"));
    loop->stopObject(timer);
    EXPECT_TRUE(log.waitFor("debug " + tagOf(timer.get()) + ": stop timer #0"));
}

TEST_F(Timer, FreedIdentIsHandedOutAgainOnceTheStopIsPerformed) {
    const auto first = loop->createTimer(1000, false);
    const auto second = loop->createTimer(1000, false);
    loop->stopObject(first);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(first.get()) + ": stop timer #0"));
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 0);
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 2);
}

TEST_F(Timer, IdentIsFreeWhenTheStopDropsTheBlock) {
    std::atomic<int> next{-1};
    {
        const std::shared_ptr<void> createsOne(
            nullptr, [&](void*) { next = identOf(loop->createTimer(1000, false)); });
        const auto timer = loop->createTimer(1000, false);
        loop->startObject(timer, [createsOne](auto&&...) { return true; });
        loop->stopObject(timer);
    }
    settle();
    settle();
    EXPECT_EQ(next, 0);
}

TEST_F(Timer, OfTwoLoopsDoNotShareTheirIdents) {
    const auto other = HXKQueue::initWithSubsystem(kSubsystem);
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 0);
    EXPECT_EQ(identOf(other->createTimer(1000, false)), 0);
}

TEST_F(Timer, PeriodicOneFiresAgainAndAgainWithoutBytes) {
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 20));
    const RecordedEvent event = events.last();
    EXPECT_EQ(event.source, timer);
    EXPECT_FALSE(event.hadBytes);
    EXPECT_EQ(event.size, 0U);
    EXPECT_FALSE(event.hadDropSize);
    EXPECT_NE(event.thread, std::this_thread::get_id());
    EXPECT_TRUE(saidNothingButData());
}

TEST_F(Timer, NeverFiresBeforeItsPeriodHasPassed) {
    const auto timer = loop->createTimer(50, false);
    const auto start = steady_clock::now();
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    EXPECT_GE(steady_clock::now() - start, milliseconds(50));
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 3));
    EXPECT_GE(steady_clock::now() - start, milliseconds(150));
}

TEST_F(Timer, OneShotFiresOnceWhileAnotherGoesOn) {
    EventRecorder others;
    loop->startObject(loop->createTimer(1, true), events.block());
    loop->startObject(loop->createTimer(2, false), others.block());
    ASSERT_TRUE(others.waitFor(HXKQueueEventData, 20));
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
}

TEST_F(Timer, OneShotThatHasFiredKeepsItsIdentUntilItIsStopped) {
    const auto timer = loop->createTimer(1, true);
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 1);
    loop->stopObject(timer);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(timer.get()) + ": stop timer #0"));
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 0);
}

TEST_F(Timer, OneShotIsArmedAgainByStartObject) {
    const auto timer = loop->createTimer(1, true);
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    EventRecorder again;
    loop->startObject(timer, again.block());
    ASSERT_TRUE(again.waitFor(HXKQueueEventData, 1));
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
}

TEST_F(Timer, StartObjectAgainReplacesTheBlockAndStartsThePeriodAfresh) {
    const auto timer = loop->createTimer(1'000, false);
    loop->startObject(timer, events.block());
    settle();
    EventRecorder again;
    const auto start = steady_clock::now();
    loop->startObject(timer, again.block());
    ASSERT_TRUE(again.waitFor(HXKQueueEventData, 1));
    EXPECT_GE(steady_clock::now() - start, seconds(1));
    EXPECT_EQ(events.count(HXKQueueEventData), 0U);
}

TEST_F(Timer, NeverStartedOneNeverFiresButHoldsItsIdent) {
    const auto idle = loop->createTimer(1, false);
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 20));
    for (const RecordedEvent& event : events.all())
        EXPECT_EQ(event.source, timer);
    EXPECT_EQ(identOf(timer), 1);
}

TEST_F(Timer, MayStopItselfFromItsOwnBlock) {
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, events.block([this](const RecordedEvent& event, auto*) {
        loop->stopObject(event.source);
        return true;
    }));
    ASSERT_TRUE(log.waitFor("debug " + tagOf(timer.get()) + ": stop timer #0"));
    settle();
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
}

TEST_F(Timer, StopReleasesTheBlock) {
    const auto held = std::make_shared<int>(1);
    const auto timer = loop->createTimer(1000, false);
    loop->startObject(timer, [held](auto&&...) { return true; });
    loop->stopObject(timer);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(timer.get()) + ": stop timer #0"));
    settle();
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(Timer, WriteDoesNothing) {
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, events.block());
    EXPECT_TRUE(loop->write(timer, "x", 1));
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 5));
    EXPECT_TRUE(saidNothingButData());
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(Timer, PeriodOfZeroOrLessFiresOnceAtOnce) {
    EventRecorder negative;
    EventRecorder others;
    loop->startObject(loop->createTimer(0, false), events.block());
    loop->startObject(loop->createTimer(uint64_t{1} << 31, false), negative.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    ASSERT_TRUE(negative.waitFor(HXKQueueEventData, 1));
    loop->startObject(loop->createTimer(1, false), others.block());
    ASSERT_TRUE(others.waitFor(HXKQueueEventData, 10));
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
    EXPECT_EQ(negative.count(HXKQueueEventData), 1U);
}

TEST_F(Timer, LeavesTheRegistryAloneWhenAnotherKindOfSourceStops) {
    const auto timer = loop->createTimer(1000, false);
    const Stream stream = makeStream();
    loop->stopObject(stream.source);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(stream.source.get()) + ": stop"));
    EXPECT_EQ(identOf(loop->createTimer(1000, false)), 1);
    close(stream.peer);
}

TEST_F(Timer, LeftToTheLoopsOwnStopIsStoppedAndStaysInTheRegistryUntilTheLoopGoes) {
    const std::weak_ptr<HXKQueueTimer> timer = loop->createTimer(1000, false);
    loop->startObject(timer.lock(), events.block());
    const std::string tag = tagOf(timer.lock().get());
    auto kept = loop;
    stopLoop();
    EXPECT_TRUE(log.has("debug " + tag + ": stop timer #0"));
    EXPECT_FALSE(timer.expired());
    kept.reset();
    EXPECT_TRUE(timer.expired());
}

// Many at once, coming and going: each fires for its own owner only.
TEST_F(Timer, ThousandsKeepApartWhileTheyComeAndGo) {
    constexpr size_t kTimers = 2000;
    std::vector<std::shared_ptr<HXKQueueTimer>> timers(kTimers);
    std::vector<std::atomic<size_t>> firings(kTimers);
    std::atomic<size_t> strangers{0};
    const auto start = [&](size_t i) {
        timers[i] = loop->createTimer(1 + i % 20, false);
        loop->startObject(timers[i], [&firings, &strangers, i, own = timers[i].get()](
                                         const auto& source, auto&&...) {
            if (source.get() != own) ++strangers;
            ++firings[i];
            return true;
        });
    };
    for (size_t i = 0; i < kTimers; ++i)
        start(i);
    std::mt19937 random(1);
    for (size_t round = 0; round < kTimers; ++round) {
        const size_t i = random() % kTimers;
        loop->stopObject(timers[i]);
        start(i);
    }
    for (auto& count : firings)
        count = 0;
    for (auto& count : firings)
        while (count == 0)
            std::this_thread::yield();
    EXPECT_EQ(strangers, 0U);
    stopLoop();
}

}  // namespace
