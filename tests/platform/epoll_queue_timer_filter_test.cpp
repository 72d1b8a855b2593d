// When a timer expires, and how often. macOS lets a timer with NOTE_BACKGROUND be late, so that
// several can be due together, counts a late one-shot timer as often as its period has passed, and
// leaves EV_ONESHOT as it was first; of periods beyond the clock it promises nothing.

#include <cerrno>

#include "tests/platform/kernel_queue.h"

namespace {

using TimerFilter = KernelQueueTest;

TEST_F(TimerFilter, CountsTheExpirationsThatNobodyFetchedWithoutDrift) {
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 2), 0);
    const int64_t start = now();
    pass(25);
    const int64_t first = waitForOne().data;
    EXPECT_GE(first, 12);
    int64_t total = first;
    while (total < 30)
        total += waitForOne().data;
    const int64_t elapsed = now() - start;
    total += [this] {
        const Records last = look();
        return last.empty() ? 0 : last.front().data;
    }();
    // As many as the time allows, not fewer because deliveries came late.
    EXPECT_GE(total, elapsed / (2 * kMillisecond));
}

TEST_F(TimerFilter, AddedAgainStartsAfreshWithTheNewPeriod) {
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 3'600'000), 0);
    const int64_t start = now();
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD | EV_ONESHOT, 10), 0);
    EXPECT_EQ(waitForOne().data, 1);
    EXPECT_GE(now() - start, 10 * kMillisecond);

    ASSERT_EQ(change(6, EVFILT_TIMER, EV_ADD, 1), 0);
    ASSERT_EQ(change(6, EVFILT_TIMER, EV_ADD, 3'600'000), 0);
    EXPECT_TRUE(wait(8, 10).empty());
}

TEST_F(TimerFilter, PeriodBeyondTheClockFailsAndKeepsTheOldTimer) {
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_ADD, INT64_MAX), ERANGE);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_ADD, INT64_MAX / kMillisecond), ERANGE);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 1), 0);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_ADD, INT64_MAX), ERANGE);
    EXPECT_GE(waitForOne().data, 1);
}

TEST_F(TimerFilter, ManyTimersFireInTheOrderOfTheirDeadlines) {
    std::vector<uint64_t> expected;
    for (uint64_t i = 0; i < 100; ++i) {
        expected.push_back(i * 37 % 100);
        ASSERT_EQ(
            change(expected.back(), EVFILT_TIMER, EV_ADD | EV_ONESHOT, static_cast<int64_t>(i + 1)),
            0);
    }
    std::vector<uint64_t> order;
    while (order.size() < 100)
        for (const struct kevent& record : wait())
            order.push_back(record.ident);
    EXPECT_EQ(order, expected);
}

TEST_F(TimerFilter, AddedAgainTakesItsNewUserDataAndRepeatsWhereItWasOneShot) {
    int first = 0;
    int second = 0;
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD | EV_ONESHOT, 1, &first), 0);
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 1, &second), 0);
    for (int i = 0; i < 2; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.udata, &second);
        EXPECT_EQ(record.flags & EV_ONESHOT, 0);
    }
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
}

TEST_F(TimerFilter, AddedAgainAsOneShotFiresOnceWhereItRepeated) {
    ASSERT_EQ(setTimer(5, 1), 0);
    EXPECT_GE(waitForOne().data, 1);
    ASSERT_EQ(setTimer(5, 1, EV_ADD | EV_ONESHOT), 0);
    pass(3);
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.data, 1);
    EXPECT_EQ(record.flags, EV_ONESHOT);
    EXPECT_TRUE(wait(8, 10).empty());
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
}

TEST_F(TimerFilter, LongestPeriodIsTheOneThatEndsWithTheClock) {
    const auto left = [] { return (INT64_MAX - now()) / kMillisecond; };
    EXPECT_EQ(setTimer(5, left() + 1), ERANGE);
    ASSERT_EQ(setTimer(5, left() - kPatience), 0);
    EXPECT_TRUE(wait(8, 5).empty());
    ASSERT_EQ(setTimer(6, 1), 0);
    EXPECT_EQ(waitForOne().ident, 6U);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
}

TEST_F(TimerFilter, LateOneShotCountsOnce) {
    ASSERT_EQ(setTimer(5, 1, EV_ADD | EV_ONESHOT), 0);
    pass(5);
    EXPECT_EQ(waitForOne().data, 1);
}

}  // namespace
