#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/platform/epoll_calls.h"
#include "tests/platform/kernel_queue.h"
#include "tests/platform/processor_time.h"
#include "tests/support/failing_allocations.h"

namespace {

class Cost : public KernelQueueTest {
protected:
    // Changes and look in one call, as the event loop does it.
    size_t exchange(std::initializer_list<struct kevent> changes) {
        const struct timespec atOnce = {};
        const int count = kevent(queue, changes.begin(), static_cast<int>(changes.size()),
                                 records.data(), static_cast<int>(records.size()), &atOnce);
        EXPECT_GE(count, 0);
        return static_cast<size_t>(count);
    }

    static struct kevent writeChange(int fd, int flags) {
        struct kevent change;
        EV_SET(&change, fd, EVFILT_WRITE, flags, 0, 0, nullptr);
        return change;
    }

    // Whether a wait for nothing sleeps rather than asking again and again.
    bool waitSleeps() {
        const int64_t before = processorTime();
        EXPECT_TRUE(wait(8, 200).empty());
        return processorTime() - before < 30'000'000;
    }

    Records records = Records(64);
};

TEST_F(Cost, ArmingAndRemovingAWriteFilterOfASocketWithRoomTakesNoEpollCtl) {
    const Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    const int before = epollCtlCalls;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(exchange({writeChange(pair.ours, EV_ADD | EV_ENABLE)}), 1U);
        EXPECT_GT(records[0].data, 0);
        ASSERT_EQ(exchange({writeChange(pair.ours, EV_DELETE)}), 0U);
    }
    EXPECT_EQ(epollCtlCalls, before);
}

// One is how many bytes there are. What the number means is asked once in 32 records.
TEST_F(Cost, MessageEchoedByABusySocketTakesOneQuestion) {
    for (const auto make : {unixPair, tcpPair}) {
        Pair pair = make();
        add(pair.ours, EVFILT_READ);
        const auto echo = [&] {
            send(pair.peer, "x");
            ASSERT_EQ(waitForOne().filter, EVFILT_READ);
            EXPECT_EQ(receive(pair.ours, 1), "x");
            ASSERT_EQ(exchange({writeChange(pair.ours, EV_ADD | EV_ENABLE)}), 1U);
            EXPECT_GE(records[0].data, 1);
            send(pair.ours, "x");
            ASSERT_EQ(exchange({writeChange(pair.ours, EV_DELETE)}), 0U);
            EXPECT_EQ(receive(pair.peer, 1), "x");
        };
        ASSERT_NO_FATAL_FAILURE(echo());
        const int before = questions;
        for (int i = 0; i < 320; ++i)
            ASSERT_NO_FATAL_FAILURE(echo());
        EXPECT_LE(questions - before, 320 + 2 * 10);
    }
}

TEST_F(Cost, SteadyStateAllocatesNothingAndTellsEpollNothing) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    ASSERT_EQ(change(1, EVFILT_TIMER, EV_ADD, 0), 0);
    const auto round = [&] {
        char byte = 'x';
        const bool sent = write(pair.peer, &byte, 1) == 1;
        const size_t ready = exchange({writeChange(pair.ours, EV_ADD | EV_ENABLE)});
        const bool received = read(pair.ours, &byte, 1) == 1;
        exchange({writeChange(pair.ours, EV_DELETE)});
        return sent && received && ready >= 2;
    };
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(round());
    const int before = epollCtlCalls;
    const FailingAllocations first(1);
    bool allRight = true;
    for (int i = 0; i < 100; ++i)
        allRight = round() && allRight;
    EXPECT_FALSE(first.happened());
    EXPECT_TRUE(allRight);
    EXPECT_EQ(epollCtlCalls, before);
}

TEST_F(Cost, WakeUpWithoutBytesDoesNotKeepTheWaitBusy) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    EXPECT_TRUE(waitSleeps());
}

TEST_F(Cost, UnconnectedSocketDoesNotKeepTheWaitBusy) {
    const Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
    add(client, EVFILT_READ);
    add(client, EVFILT_WRITE);
    EXPECT_TRUE(waitSleeps());
}

TEST_F(Cost, DuplicateOfAClosedDescriptorDoesNotKeepTheWaitBusy) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    const Descriptor duplicate(dup(pair.ours));
    pair.ours.reset();
    send(pair.peer, "x");
    EXPECT_TRUE(waitSleeps());
}

TEST_F(Cost, PeriodicTimerAllocatesNothingPerDelivery) {
    ASSERT_EQ(change(1, EVFILT_TIMER, EV_ADD, 1), 0);
    struct kevent record;
    ASSERT_EQ(kevent(queue, nullptr, 0, &record, 1, nullptr), 1);
    const FailingAllocations first(1);
    bool allRight = true;
    for (int i = 0; i < 5; ++i)
        allRight = kevent(queue, nullptr, 0, &record, 1, nullptr) == 1 && allRight;
    EXPECT_FALSE(first.happened());
    EXPECT_TRUE(allRight);
}

TEST_F(Cost, DuplicateOfAClosedDescriptorIsShakenOffOnceAndLeavesNoDescriptorOpen) {
    Pair gone = unixPair();
    const Pair kept = unixPair();
    add(gone.ours, EVFILT_READ);
    add(kept.ours, EVFILT_READ);
    const Descriptor duplicate(dup(gone.ours));
    gone.ours.reset();
    const int lowest = dup(kept.ours);
    close(lowest);
    send(gone.peer, "x");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(look().empty());
    const int before = epollCtlCalls;
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(look().empty());
    EXPECT_EQ(epollCtlCalls, before);
    EXPECT_EQ(Descriptor(dup(kept.ours)), lowest);
}

TEST_F(Cost, WriteFilterOfASocketWithoutRoomIsLeftToEpoll) {
    const Pair pair = unixPair();
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    const int before = epollCtlCalls;
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(epollCtlCalls, before + 1);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(epollCtlCalls, before + 1);
}

}  // namespace
