#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "tests/platform/epoll_calls.h"
#include "tests/platform/kernel_queue.h"
#include "tests/platform/processor_time.h"
#include "tests/support/failing_allocations.h"

namespace {

using Trouble = KernelQueueTest;

// Few open files are allowed while it lives; those that are open stay so.
class FewFiles {
public:
    explicit FewFiles(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        struct rlimit few = before;
        few.rlim_cur = count;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    FewFiles(const FewFiles&) = delete;
    FewFiles& operator=(const FewFiles&) = delete;
    ~FewFiles() { setrlimit(RLIMIT_NOFILE, &before); }

private:
    struct rlimit before = {};
};

// poll(2) takes no more at once than the process may have open.
TEST_F(Trouble, EveryReadyDescriptorHasItsTurnAlsoWhenMoreAreLeftOverThanMayBeOpen) {
    std::vector<Pair> pairs(100);
    for (Pair& pair : pairs) {
        pair = unixPair();
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
        add(pair.ours, EVFILT_WRITE);
    }
    const FewFiles few(110);
    std::set<std::pair<uint64_t, int>> seen;
    for (size_t i = 0; i < 2 * pairs.size() / 10 + 1; ++i)
        for (const struct kevent& record : wait(10))
            seen.emplace(record.ident, record.filter);
    EXPECT_EQ(seen.size(), 2 * pairs.size());
}

TEST_F(Trouble, WriteFiltersOfMoreDescriptorsThanMayBeOpenAreReadyAllTheSame) {
    std::vector<Pair> pairs(100);
    for (Pair& pair : pairs) {
        pair = unixPair();
        add(pair.ours, EVFILT_WRITE);
    }
    const FewFiles few(50);
    EXPECT_EQ(wait(200).size(), pairs.size());
}

TEST_F(Trouble, DuplicateOfAClosedDescriptorDoesNotKeepTheWaitBusyWithoutADescriptorToSpare) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    const Descriptor duplicate(dup(pair.ours));
    pair.ours.reset();
    send(pair.peer, "x");
    failingQueueCreations = INT32_MAX;
    const int64_t before = processorTime();
    EXPECT_TRUE(wait(8, 200).empty());
    EXPECT_LT(processorTime() - before, 50 * kMillisecond);
    failingQueueCreations = 0;
}

TEST_F(Trouble, FiltersOutliveStraysThatCannotBeShakenOffBecauseEpollIsFull) {
    Pair gone = unixPair();
    const Pair kept = unixPair();
    add(gone.ours, EVFILT_READ);
    add(kept.ours, EVFILT_READ);
    const Descriptor duplicate(dup(gone.ours));
    gone.ours.reset();
    send(gone.peer, "x");
    isEpollFull = true;
    EXPECT_TRUE(wait(8, 10).empty());
    isEpollFull = false;
    send(kept.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
}

TEST_F(Trouble, WriteFilterOfAnUnconnectedSocketThatEpollWouldNotTakeWakesWithTheConnection) {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    const Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
    add(client, EVFILT_WRITE);
    isEpollFull = true;
    EXPECT_TRUE(wait(8, 10).empty());
    isEpollFull = false;
    ASSERT_EQ(connectSocket(client, port), 0);
    EXPECT_EQ(waitForOne().filter, EVFILT_WRITE);
}

// One byte is safe to read of what is readable; at the end it is not there.
TEST_F(Trouble, BytesThatCannotBeCountedAreReadOneByOne) {
    std::vector<Pair> pairs;
    pairs.push_back(unixPair());
    pairs.push_back(tcpPair());
    pairs.push_back(pipePair());
    for (Pair& pair : pairs) {
        add(pair.ours, EVFILT_READ);
        isCountRefused = true;
        EXPECT_TRUE(look().empty());
        send(pair.peer, "ab");
        for (const char* byte : {"a", "b"}) {
            EXPECT_GE(waitForOne().data, 1);
            EXPECT_EQ(receive(pair.ours, 1), byte);
        }
        EXPECT_TRUE(wait(8, 1).empty());
        pair.peer.reset();
        EXPECT_NE(waitForOne().flags & EV_EOF, 0);
        isCountRefused = false;
        remove(pair.ours, EVFILT_READ);
    }
}

// What epoll has no room for is asked for by poll.
class ReadFilterThatEpollRefuses : public KernelQueueTest {
protected:
    ~ReadFilterThatEpollRefuses() override { isEpollFull = false; }

    static std::vector<Pair> pairs() {
        std::vector<Pair> all;
        all.push_back(unixPair());
        all.push_back(tcpPair());
        all.push_back(pipePair());
        return all;
    }
};

TEST_F(ReadFilterThatEpollRefuses, TellsOfBytesAndOfTheEndAllTheSame) {
    isEpollFull = true;
    for (Pair& pair : pairs()) {
        add(pair.ours, EVFILT_READ);
        EXPECT_TRUE(look().empty());
        send(pair.peer, "abc");
        EXPECT_EQ(waitForOne().data, 3);
        EXPECT_EQ(waitForOne().data, 3);
        EXPECT_EQ(receive(pair.ours, 3), "abc");
        EXPECT_TRUE(wait(8, 1).empty());
        pair.peer.reset();
        EXPECT_NE(waitForOne().flags & EV_EOF, 0);
        remove(pair.ours, EVFILT_READ);
        EXPECT_TRUE(wait(8, 1).empty());
    }
}

TEST_F(ReadFilterThatEpollRefuses, SharesItsDescriptorWithAWriteFilter) {
    const Pair pair = unixPair();
    fillUp(pair.ours);
    isEpollFull = true;
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_TRUE(wait(8, 1).empty());
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
    remove(pair.ours, EVFILT_READ);
    EXPECT_TRUE(wait(8, 1).empty());
    add(pair.ours, EVFILT_READ);
    remove(pair.ours, EVFILT_WRITE);
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
}

TEST_F(ReadFilterThatEpollRefuses, GoesToEpollOnceThatHasRoom) {
    const Pair pair = unixPair();
    isEpollFull = true;
    add(pair.ours, EVFILT_READ);
    isEpollFull = false;
    EXPECT_TRUE(look().empty());
    const int before = epollCtlCalls;
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(look().empty());
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(epollCtlCalls, before);
}

TEST_F(ReadFilterThatEpollRefuses, DoesNotKeepTheWaitBusy) {
    const auto [ours, peer] = datagramPair();
    isEpollFull = true;
    add(ours, EVFILT_READ);
    // A datagram of no bytes is a readiness that there is nothing to tell of.
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    const int64_t before = processorTime();
    EXPECT_TRUE(wait(8, 200).empty());
    EXPECT_LT(processorTime() - before, 50 * kMillisecond);
}

TEST_F(ReadFilterThatEpollRefuses, IsNotTakenForOneOfTheNextDescriptorOfItsNumber) {
    Pair pair = unixPair();
    const int number = pair.ours;
    isEpollFull = true;
    add(pair.ours, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    pair.ours.reset();
    const Pair next = unixPair();
    const Descriptor reused(dup2(next.ours, number));
    send(next.peer, "x");
    EXPECT_TRUE(wait(8, 10).empty());
    isEpollFull = false;
    EXPECT_TRUE(wait(8, 10).empty());
}

TEST_F(Trouble, WakeUpOutlivesACallThatRunsOutOfMemory) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    EXPECT_TRUE(look().empty());
    char nothing = 0;
    ASSERT_EQ(recv(ours, &nothing, 1, 0), 0);
    ASSERT_EQ(::send(peer, "abcd", 4, 0), 4);

    std::vector<Pair> pairs(100);
    for (Pair& pair : pairs) {
        pair = unixPair();
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    Records records(200);
    const struct timespec atOnce = {};
    int count = 0;
    {
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        count = kevent(queue, nullptr, 0, records.data(), 200, &atOnce);
    }
    if (count == -1) count = kevent(queue, nullptr, 0, records.data(), 200, &atOnce);
    EXPECT_EQ(count, 101);
}

TEST_F(Trouble, LineThatAnotherReaderTakesFirstIsNoEndOfTheTerminal) {
    const Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "line\n");
    pollfd arrived{.fd = pair.ours, .events = POLLIN, .revents = 0};
    ASSERT_EQ(poll(&arrived, 1, kPatience), 1);
    readAwayBeforeCount = pair.ours;
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_EQ(readAwayBeforeCount, -1);
    send(pair.peer, "next\n");
    EXPECT_EQ(waitForOne().data, 5);
}

TEST_F(Trouble, RoomOfATcpSocketWhoseMemoryIsNotToldIsMoreThanAByteAndNeverBlocks) {
    const Pair pair = tcpPair();
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    isMemoryInfoCut = true;
    add(pair.ours, EVFILT_WRITE);
    std::string drained(1'000, '\0');
    for (int round = 0; round < 2'000; ++round) {
        const Records records = look();
        if (records.empty()) {
            ASSERT_GT(read(pair.peer, drained.data(), drained.size()), 0);
            continue;
        }
        ASSERT_GT(records.front().data, 1);
        send(pair.ours, std::string(static_cast<size_t>(records.front().data), 'x'));
    }
    isMemoryInfoCut = false;
}

}  // namespace
