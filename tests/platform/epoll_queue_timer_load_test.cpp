// Each timer to the millisecond. macOS lets timers with NOTE_BACKGROUND be late.

#include <cerrno>
#include <vector>

#include "tests/platform/kernel_queue.h"

namespace {

constexpr size_t kTimers = 10'000;

// A timer, and what has been delivered of it.
struct Tally {
    int64_t period = 0;  // nanoseconds
    int64_t notBefore = 0;
    int64_t notAfter = 0;  // the timer has started between these
    int64_t expirations = 0;

    [[nodiscard]] int64_t leastAt(int64_t time) const { return (time - notAfter) / period; }
    [[nodiscard]] int64_t mostAt(int64_t time) const { return (time - notBefore) / period; }
};

class TimerLoad : public KernelQueueTest {
protected:
    Tally start(uint64_t ident, int64_t milliseconds) {
        Tally tally{.period = milliseconds * kMillisecond, .notBefore = now()};
        EXPECT_EQ(setTimer(ident, milliseconds), 0);
        tally.notAfter = now();
        return tally;
    }

    // Counts the records, none of which may have come early.
    static void count(const Records& records, std::vector<Tally>& tallies) {
        const int64_t time = now();
        for (const struct kevent& record : records) {
            Tally& tally = tallies.at(record.ident);
            ASSERT_GE(record.data, 1);
            tally.expirations += record.data;
            ASSERT_LE(tally.expirations, tally.mostAt(time)) << "timer " << record.ident;
        }
    }

    // One call with room for all leaves nothing undelivered.
    void expectAllThatTheClockAllows(std::vector<Tally>& tallies) {
        const int64_t before = now();
        const Records last = look(tallies.size());
        const int64_t after = now();
        for (const struct kevent& record : last)
            tallies.at(record.ident).expirations += record.data;
        for (size_t ident = 0; ident < tallies.size(); ++ident) {
            const Tally& tally = tallies[ident];
            ASSERT_GE(tally.expirations, tally.leastAt(before)) << "timer " << ident;
            ASSERT_LE(tally.expirations, tally.mostAt(after)) << "timer " << ident;
        }
    }
};

TEST_F(TimerLoad, TenThousandTimersEachExpireAsOftenAsTheirPeriodAllows) {
    std::vector<Tally> tallies;
    for (size_t i = 0; i < kTimers; ++i)
        tallies.push_back(start(i, static_cast<int64_t>(i % 1'000 + 1)));
    const int64_t end = now() + 1'100 * kMillisecond;
    while (now() < end)
        ASSERT_NO_FATAL_FAILURE(count(wait(1'000), tallies));
    expectAllThatTheClockAllows(tallies);
}

// Ten thousand milliseconds are what it takes.
TEST_F(TimerLoad, TenThousandFiringsOfAMillisecondDoNotDriftHoweverLateTheyAreFetched) {
    std::vector<Tally> tallies = {start(0, 1)};
    int64_t nextPause = 700;
    while (tallies[0].expirations < 10'000) {
        ASSERT_NO_FATAL_FAILURE(count(wait(), tallies));
        if (tallies[0].expirations < nextPause) continue;
        pass(5);
        nextPause += 700;
    }
    expectAllThatTheClockAllows(tallies);
}

TEST_F(TimerLoad, TenThousandOneShotsFireOnceAndAreGoneWhileOthersGoOn) {
    constexpr uint64_t kPeriodic = kTimers;
    ASSERT_EQ(setTimer(kPeriodic, 1), 0);
    for (size_t i = 0; i < kTimers; ++i)
        ASSERT_EQ(setTimer(i, static_cast<int64_t>(i % 100), EV_ADD | EV_ONESHOT), 0);
    std::vector<int64_t> fired(kTimers + 1);
    for (size_t left = kTimers; left > 0;)
        for (const struct kevent& record : wait(1'000)) {
            fired.at(record.ident) += record.data;
            if (record.ident != kPeriodic) --left;
        }
    for (size_t i = 0; i < kTimers; ++i)
        ASSERT_EQ(fired[i], 1) << "timer " << i;
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(waitForOne().ident, kPeriodic);
    for (size_t i = 0; i < kTimers; ++i)
        ASSERT_EQ(change(i, EVFILT_TIMER, EV_DELETE), ENOENT);
}

TEST_F(TimerLoad, TimersThatAreAllDueHaveOneTurnEachBeforeAnyHasTwo) {
    constexpr size_t kDue = 1'000;
    constexpr size_t kRoom = 10;
    for (size_t i = 0; i < kDue; ++i)
        ASSERT_EQ(setTimer(i, 1), 0);
    for (int round = 1; round <= 5; ++round) {
        pass(2);
        std::vector<int> turns(kDue);
        for (size_t i = 0; i < kDue / kRoom; ++i)
            for (const struct kevent& record : look(kRoom))
                ++turns.at(record.ident);
        for (size_t i = 0; i < kDue; ++i)
            ASSERT_EQ(turns[i], 1) << "timer " << i << ", round " << round;
    }
}

}  // namespace
