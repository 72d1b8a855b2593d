#include <array>
#include <cerrno>
#include <set>
#include <utility>

#include "tests/platform/kernel_queue.h"

namespace {

using TimerFilter = KernelQueueTest;

TEST_F(TimerFilter, FiresAgainAndAgainNeverEarly) {
    int tag = 0;
    const int64_t start = now();
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD | EV_ENABLE, 3, &tag), 0);
    int64_t expirations = 0;
    while (expirations < 5) {
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.filter, EVFILT_TIMER);
        EXPECT_EQ(record.ident, 5U);
        EXPECT_EQ(record.udata, &tag);
        expirations += record.data;
        EXPECT_GE(now() - start, expirations * 3 * kMillisecond);
    }
}

TEST_F(TimerFilter, OneShotFiresOnceAndIsGone) {
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD | EV_ONESHOT, 1), 0);
    EXPECT_GE(waitForOne().data, 1);
    EXPECT_TRUE(wait(8, 10).empty());
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
}

TEST_F(TimerFilter, PeriodOfZeroOrLessFiresOnceAtOnceAndStaysRegistered) {
    for (const int64_t period : {int64_t{0}, int64_t{-1}, int64_t{-2'147'483'648}}) {
        ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, period), 0);
        EXPECT_EQ(waitForOne().data, 1);
        EXPECT_TRUE(wait(8, 10).empty());
        EXPECT_EQ(change(5, EVFILT_TIMER, EV_ENABLE), 0);
        ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 1), 0);
        EXPECT_GE(waitForOne().data, 1);
        ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, period), 0);
        EXPECT_EQ(waitForOne().data, 1);
        EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
    }
}

TEST_F(TimerFilter, RemovedTimerIsSilent) {
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD, 1), 0);
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
    EXPECT_TRUE(wait(8, 10).empty());
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
}

TEST_F(TimerFilter, SharesItsIdentWithADescriptorWithoutConfusion) {
    Pair pair = unixPair();
    const auto ident = static_cast<uint64_t>(pair.ours);
    add(pair.ours, EVFILT_READ);
    ASSERT_EQ(change(ident, EVFILT_TIMER, EV_ADD | EV_ONESHOT, 1), 0);
    EXPECT_EQ(waitForOne().filter, EVFILT_TIMER);
    send(pair.peer, "x");
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
}

TEST_F(TimerFilter, OfNoPeriodIsDueWhenTheCallThatAddsItLooks) {
    struct kevent change;
    EV_SET(&change, 5, EVFILT_TIMER, EV_ADD, NOTE_BACKGROUND, 0, nullptr);
    struct kevent record;
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(queue, &change, 1, &record, 1, &atOnce), 1);
}

TEST_F(TimerFilter, AddedAgainStartsAfreshAlsoWithTheSamePeriod) {
    ASSERT_EQ(setTimer(5, 30), 0);
    pass(20);
    const int64_t start = now();
    ASSERT_EQ(setTimer(5, 30), 0);
    EXPECT_GE(waitForOne().data, 1);
    EXPECT_GE(now() - start, 30 * kMillisecond);
}

TEST_F(TimerFilter, AddedAgainWhileDueForgetsThatItWas) {
    ASSERT_EQ(setTimer(5, 1), 0);
    ASSERT_EQ(setTimer(6, 1, EV_ADD | EV_ONESHOT), 0);
    pass(3);
    ASSERT_EQ(setTimer(5, 3'600'000), 0);
    ASSERT_EQ(setTimer(6, 3'600'000), 0);
    EXPECT_TRUE(wait(8, 10).empty());
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
    EXPECT_EQ(change(6, EVFILT_TIMER, EV_DELETE), 0);
}

TEST_F(TimerFilter, AddedAgainAfterItsDeliveryCountsFromThere) {
    for (const int64_t period : {1, 7}) {
        ASSERT_EQ(setTimer(5, 3), 0);
        EXPECT_GE(waitForOne().data, 1);
        pass(10);
        const int64_t start = now();
        ASSERT_EQ(setTimer(5, period), 0);
        int64_t expirations = 0;
        while (expirations < 4) {
            expirations += waitForOne().data;
            EXPECT_LE(expirations, (now() - start) / (period * kMillisecond));
        }
    }
}

TEST_F(TimerFilter, OneShotThatHasFiredCanBeAddedAgain) {
    for (const int flags : {EV_ADD | EV_ONESHOT, EV_ADD | EV_ONESHOT, EV_ADD}) {
        const int64_t start = now();
        ASSERT_EQ(setTimer(5, 2, flags), 0);
        EXPECT_GE(waitForOne().data, 1);
        EXPECT_GE(now() - start, 2 * kMillisecond);
    }
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
}

TEST_F(TimerFilter, RemovedWhileDueIsSilent) {
    for (const int flags : {EV_ADD, EV_ADD | EV_ONESHOT})
        for (const int64_t period : {0, 1}) {
            ASSERT_EQ(setTimer(5, period, flags), 0);
            pass(2);
            struct kevent removal;
            EV_SET(&removal, 5, EVFILT_TIMER, EV_DELETE, 0, 0, nullptr);
            struct kevent record;
            const struct timespec atOnce = {};
            EXPECT_EQ(kevent(queue, &removal, 1, &record, 1, &atOnce), 0);
            EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
        }
}

TEST_F(TimerFilter, OfOneIdentInTwoQueuesAreTwoTimers) {
    Descriptor other(kqueue());
    ASSERT_EQ(setTimer(5, 3'600'000), 0);
    std::swap(queue, other);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
    ASSERT_EQ(setTimer(5, 1, EV_ADD | EV_ONESHOT), 0);
    EXPECT_EQ(waitForOne().ident, 5U);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), ENOENT);
    std::swap(queue, other);
    EXPECT_TRUE(wait(8, 5).empty());
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_DELETE), 0);
}

TEST_F(TimerFilter, IdentMayBeAnyNumber) {
    const std::array<uint64_t, 5> idents = {0, static_cast<uint64_t>(INT64_MAX), uint64_t{1} << 63,
                                            UINT64_MAX - 1, UINT64_MAX};
    for (const uint64_t ident : idents)
        ASSERT_EQ(setTimer(ident, 1, EV_ADD | EV_ONESHOT), 0);
    std::set<uint64_t> fired;
    while (fired.size() < idents.size())
        for (const struct kevent& record : wait())
            EXPECT_TRUE(fired.insert(record.ident).second);
    EXPECT_EQ(fired, std::set<uint64_t>(idents.begin(), idents.end()));

    struct kevent negative;
    EV_SET(&negative, -1, EVFILT_TIMER, EV_ADD, 0, 3'600'000, nullptr);
    ASSERT_EQ(kevent(queue, &negative, 1, nullptr, 0, nullptr), 0);
    EXPECT_EQ(change(UINT64_MAX, EVFILT_TIMER, EV_DELETE), 0);
}

}  // namespace
