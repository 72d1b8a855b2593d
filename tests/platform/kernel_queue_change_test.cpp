#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <span>
#include <thread>

#include "tests/platform/kernel_queue.h"

namespace {

using Changes = KernelQueueTest;

TEST(EventRecord, NegativeIdentIsSignExtended) {
    struct kevent record;
    EV_SET(&record, -1, EVFILT_READ, EV_ADD, 1, -2, nullptr);
    EXPECT_EQ(record.ident, UINT64_MAX);
    EXPECT_EQ(record.data, -2);
}

TEST_F(Changes, FailureIsARecordWithTheChangesFlagsAndTheErrorNumber) {
    const Pair pair = unixPair();
    int tag = 0;
    const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_DELETE, &tag);
    struct kevent record;
    ASSERT_EQ(kevent(queue, &change, 1, &record, 1, nullptr), 1);
    EXPECT_EQ(record.ident, static_cast<uint64_t>(pair.ours));
    EXPECT_EQ(record.filter, EVFILT_READ);
    EXPECT_EQ(record.flags, EV_DELETE | EV_ERROR);
    EXPECT_EQ(record.data, ENOENT);
    EXPECT_EQ(record.udata, &tag);
}

TEST_F(Changes, FailureReturnsAtOnceAndWithoutReadyRecords) {
    const Pair pair = unixPair();
    add(pair.ours, EVFILT_WRITE);
    const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_DELETE);
    Records records(8);
    ASSERT_EQ(kevent(queue, &change, 1, records.data(), 8, nullptr), 1);
    EXPECT_NE(records[0].flags & EV_ERROR, 0);
}

TEST_F(Changes, FailureWithoutRoomFailsTheCall) {
    const Pair pair = unixPair();
    const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_DELETE);
    EXPECT_EQ(kevent(queue, &change, 1, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Changes, ShareAnArrayWithTheRecordsOfTheirFailures) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    Records both = {
        makeChange(pair.ours, EVFILT_WRITE, EV_DELETE), makeChange(pair.ours, EVFILT_READ, EV_ADD),
        makeChange(pair.ours, EVFILT_WRITE, EV_DELETE),
        makeChange(pair.ours, EVFILT_READ, EV_DELETE), makeChange(pair.ours, EVFILT_WRITE, EV_ADD)};
    ASSERT_EQ(kevent(queue, both.data(), 5, both.data(), 5, nullptr), 2);
    for (const struct kevent& record : std::span(both).first(2)) {
        EXPECT_EQ(record.filter, EVFILT_WRITE);
        EXPECT_EQ(record.flags, EV_DELETE | EV_ERROR);
    }
    EXPECT_EQ(waitForOne().filter, EVFILT_WRITE);
}

TEST_F(Changes, AreAppliedInOrder) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    Records changes = {makeChange(pair.ours, EVFILT_READ, EV_DELETE),
                       makeChange(pair.ours, EVFILT_READ, EV_ADD | EV_ENABLE),
                       makeChange(pair.ours, EVFILT_READ, EV_DELETE),
                       makeChange(pair.ours, EVFILT_READ, EV_DELETE)};
    Records records(8);
    ASSERT_EQ(kevent(queue, changes.data(), 4, records.data(), 8, nullptr), 2);
    EXPECT_EQ(records[0].data, ENOENT);
    EXPECT_EQ(records[1].data, ENOENT);
    EXPECT_TRUE(look().empty());
}

TEST_F(Changes, AreAppliedBeforeTheWait) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_ADD | EV_ENABLE);
    struct kevent record;
    ASSERT_EQ(kevent(queue, &change, 1, &record, 1, nullptr), 1);
    EXPECT_EQ(record.flags & EV_ERROR, 0);
    EXPECT_EQ(record.data, 1);
}

TEST_F(Changes, OfAClosedDescriptorFailWithEbadf) {
    Pair pair = unixPair();
    const int closed = pair.ours;
    pair.ours.reset();
    EXPECT_EQ(change(static_cast<uint64_t>(closed), EVFILT_READ, EV_ADD | EV_ENABLE), EBADF);
    EXPECT_EQ(change(static_cast<uint64_t>(closed), EVFILT_WRITE, EV_ADD | EV_ENABLE), EBADF);
    const int removal = change(static_cast<uint64_t>(closed), EVFILT_READ, EV_DELETE);
    EXPECT_TRUE(removal == EBADF || removal == ENOENT);
    EXPECT_EQ(change(UINT64_MAX, EVFILT_READ, EV_ADD), EBADF);
}

TEST_F(Changes, AddingAgainReplacesTheUserData) {
    Pair pair = unixPair();
    int first = 0;
    int second = 0;
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ, &first);
    add(pair.ours, EVFILT_READ, &second);
    EXPECT_EQ(waitForOne().udata, &second);
}

TEST_F(Changes, RemovedFilterIsSilentAndCannotBeRemovedAgain) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    remove(pair.ours, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Changes, RemovingOneFilterKeepsTheOther) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    remove(pair.ours, EVFILT_WRITE);
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
}

TEST_F(Changes, OneShotIsGoneAfterItsDelivery) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    ASSERT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_ADD | EV_ONESHOT), 0);
    EXPECT_EQ(waitForOne().data, 1);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Changes, QueueIsGoneOnceItsDescriptorIsClosed) {
    const int number = queue;
    queue.reset();
    struct kevent record;
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(number, nullptr, 0, &record, 1, &atOnce), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Changes, QueueThatReusesANumberStartsEmpty) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    const int number = queue;
    queue.reset();
    queue = Descriptor(kqueue());
    ASSERT_EQ(queue, number);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Changes, ThousandQueuesOpenAndCloseWithoutKeepingADescriptor) {
    Pair pair = unixPair();
    const int probe = dup(pair.ours);
    close(probe);
    for (int i = 0; i < 1000; ++i) {
        queue.reset();
        queue = Descriptor(kqueue());
        add(pair.ours, EVFILT_READ);
        ASSERT_EQ(change(1, EVFILT_TIMER, EV_ADD, 1000), 0);
    }
    queue.reset();
    const Descriptor again(dup(pair.ours));
    EXPECT_LE(again, probe);
}

TEST_F(Changes, WaitWithNothingReadyLastsAsLongAsItsTimeout) {
    const Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    const int64_t start = now();
    EXPECT_TRUE(wait(8, 5).empty());
    EXPECT_GE(now() - start, 5'000'000);
}

TEST_F(Changes, LastChangeOfAFilterDecides) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    const Records changes = {makeChange(pair.ours, EVFILT_READ, EV_ADD | EV_ENABLE),
                             makeChange(pair.ours, EVFILT_READ, EV_DELETE)};
    Records records(8);
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(queue, changes.data(), 2, records.data(), 8, &atOnce), 0);
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Changes, EnablingAnAbsentFilterFailsAndAddsNothing) {
    Pair pair = unixPair();
    const auto ident = static_cast<uint64_t>(pair.ours);
    send(pair.peer, "x");
    EXPECT_EQ(change(ident, EVFILT_READ, EV_ENABLE), ENOENT);
    EXPECT_EQ(change(5, EVFILT_TIMER, EV_ENABLE, 0), ENOENT);
    EXPECT_TRUE(look().empty());
}

TEST_F(Changes, DescriptorThatIsNoQueueIsRefused) {
    const Pair pair = unixPair();
    struct kevent record;
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(pair.ours, nullptr, 0, &record, 1, &atOnce), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Changes, WaitThatIsInterruptedByASignalSaysSoWithItsChangesApplied) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::atomic<bool> isBack{false};
    std::thread signaller([&isBack, waiting = pthread_self()] {
        while (!isBack) {
            pthread_kill(waiting, SIGUSR1);
            sched_yield();
        }
    });
    struct kevent change;
    EV_SET(&change, 5, EVFILT_TIMER, EV_ADD, 0, 3'600'000, nullptr);
    struct kevent record;
    const struct timespec patience = {.tv_sec = 20, .tv_nsec = 0};
    const int result = kevent(queue, &change, 1, &record, 1, &patience);
    const int error = errno;
    isBack = true;
    signaller.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(this->change(5, EVFILT_TIMER, EV_DELETE), 0);
}

}  // namespace
