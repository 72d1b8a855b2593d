// Of changes and calls. macOS stops at a change that fails without room for its record, leaves
// EV_ADD in a filter's flags and EV_ONESHOT as it was first, and knows filter flags that ours does
// not; of wrong arguments it promises nothing.

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include "tests/platform/kernel_queue.h"

namespace {

using Changes = KernelQueueTest;

TEST_F(Changes, FailureWithoutRoomFailsTheCallWithTheFirstErrorAfterAllAreApplied) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    const Records changes = {makeChange(pair.ours, EVFILT_READ, EV_DELETE),
                             makeChange(pair.ours, EVFILT_READ, EV_ADD),
                             makeChange(pair.ours, EVFILT_WRITE, EV_ADD | EV_ERROR)};
    EXPECT_EQ(kevent(queue, changes.data(), 3, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
}

TEST_F(Changes, AfterFailuresThatFillTheRoomAreAppliedAndFailWithoutARecord) {
    const Pair pair = unixPair();
    const Pair other = unixPair();
    Records changes(1001, makeChange(pair.ours, EVFILT_READ, EV_DELETE));
    changes.push_back(makeChange(pair.ours, EVFILT_WRITE, EV_ADD));
    changes.push_back(makeChange(pair.ours, EVFILT_READ, EV_DELETE));
    changes.push_back(makeChange(other.ours, EVFILT_WRITE, EV_ADD));
    Records records(1000);
    ASSERT_EQ(kevent(queue, changes.data(), static_cast<int>(changes.size()), records.data(), 1000,
                     nullptr),
              1000);
    for (const struct kevent& record : records) {
        ASSERT_EQ(record.flags, EV_DELETE | EV_ERROR);
        ASSERT_EQ(record.data, ENOENT);
    }
    EXPECT_EQ(wait().size(), 2U);
}

TEST_F(Changes, FilterFlagsThatAreNotSupportedAreRefused) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    constexpr uint32_t kUnknown = 1;
    for (const int filter : {EVFILT_READ, EVFILT_WRITE, EVFILT_TIMER}) {
        struct kevent change = makeChange(pair.ours, filter, EV_ADD);
        change.fflags = kUnknown;
        EXPECT_EQ(kevent(queue, &change, 1, nullptr, 0, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(look().empty());
}

TEST_F(Changes, NumberBeyondEveryDescriptorIsNotTakenForALowerOne) {
    const Pair pair = unixPair();
    const uint64_t beyond = (uint64_t{1} << 32) + static_cast<uint64_t>(pair.ours);
    EXPECT_EQ(change(beyond, EVFILT_WRITE, EV_ADD), EBADF);
    EXPECT_TRUE(look().empty());
}

TEST_F(Changes, CallWithANegativeCountOrAnInvalidTimeoutFails) {
    struct kevent record;
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(queue, nullptr, -1, &record, 1, &atOnce), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kevent(queue, nullptr, 0, &record, -1, &atOnce), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const struct timespec invalid :
         {timespec{-1, 0}, timespec{0, -1}, timespec{0, 1'000'000'000}}) {
        EXPECT_EQ(kevent(queue, nullptr, 0, &record, 1, &invalid), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(Changes, QueueIsClosedOnExecAlsoAfterStraysHaveBeenShakenOff) {
    EXPECT_EQ(fcntl(queue, F_GETFD), FD_CLOEXEC);
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    const Descriptor duplicate(dup(pair.ours));
    pair.ours.reset();
    send(pair.peer, "x");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(look().empty());
    EXPECT_EQ(fcntl(queue, F_GETFD), FD_CLOEXEC);
}

TEST_F(Changes, RecordOfAOneShotFilterSaysThatItWasOne) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    ASSERT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_ADD | EV_ONESHOT), 0);
    EXPECT_EQ(waitForOne().flags, EV_ONESHOT);
    ASSERT_EQ(change(5, EVFILT_TIMER, EV_ADD | EV_ONESHOT, 1), 0);
    EXPECT_EQ(waitForOne().flags, EV_ONESHOT);
}

TEST_F(Changes, AddingAgainWithoutOneShotKeepsTheFilterAfterItsDelivery) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    const auto ident = static_cast<uint64_t>(pair.ours);
    ASSERT_EQ(change(ident, EVFILT_READ, EV_ADD | EV_ONESHOT), 0);
    ASSERT_EQ(change(ident, EVFILT_READ, EV_ADD), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(waitForOne().data, 1);
}

TEST_F(Changes, WaitWithAWakeUpThatIsSwallowedLastsAsLongAsItsTimeout) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    const int64_t start = now();
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_GE(now() - start, 20'000'000);
}

}  // namespace
