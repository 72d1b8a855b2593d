// How much room there is. macOS' counts are not measured: whether a blocking write of so many bytes
// never blocks, when a descriptor that was filled has none left (TCP moves bytes on afterwards),
// and what a small buffer, a pending connect and a peer that is gone make of it.

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

#include "tests/platform/kernel_queue.h"

namespace {

class WriteFilter : public KernelQueueTest {
protected:
    // What the call that adds the filter finds at once.
    Records addAndLook(int fd) {
        const struct kevent arming = makeChange(fd, EVFILT_WRITE, EV_ADD);
        const struct timespec atOnce = {};
        Records records(8);
        const int count = kevent(queue, &arming, 1, records.data(), 8, &atOnce);
        EXPECT_GE(count, 0);
        records.resize(static_cast<size_t>(std::max(count, 0)));
        return records;
    }

    // For every message, as a stream does it.
    Records armAfresh(int fd) {
        Records records = addAndLook(fd);
        remove(fd, EVFILT_WRITE);
        return records;
    }

    // Writes as many bytes as each count says, and reads a piece at the other end whenever there
    // is none. A count that is too large would block the write, and the test with it. It is
    // checked without blocking, so that a failure is a message.
    void writeAsCounted(const Pair& pair, char byte, size_t piece, int rounds,
                        bool armingAfresh = false) {
        std::string drained(piece, '\0');
        for (int round = 0; round < rounds; ++round) {
            const Records records = armingAfresh ? armAfresh(pair.ours) : look();
            if (records.empty()) {
                ASSERT_GT(read(pair.peer, drained.data(), drained.size()), 0);
                continue;
            }
            ASSERT_GT(records.front().data, 0);
            const std::string bytes(static_cast<size_t>(records.front().data), byte);
            fcntl(pair.ours, F_SETFL, O_NONBLOCK);
            ASSERT_EQ(::write(pair.ours, bytes.data(), bytes.size()),
                      static_cast<ssize_t>(bytes.size()))
                << "round " << round;
            fcntl(pair.ours, F_SETFL, 0);
        }
    }
};

class WriteFilterOfAnyStream : public WriteFilter, public testing::WithParamInterface<Pair (*)()> {
protected:
    Pair pair = GetParam()();
};

INSTANTIATE_TEST_SUITE_P(UnixTcpAndPipe, WriteFilterOfAnyStream,
                         testing::Values(unixPair, tcpPair, writablePipePair));

TEST_P(WriteFilterOfAnyStream, CountNeverBlocksWhateverTheSizeOfTheWritesBefore) {
    for (const size_t piece :
         {size_t{1}, size_t{100}, size_t{1000}, size_t{4096}, size_t{60'000}}) {
        SCOPED_TRACE("after pieces of " + std::to_string(piece) + " bytes");
        fillUp(pair.ours, piece);
        add(pair.ours, EVFILT_WRITE);
        ASSERT_NO_FATAL_FAILURE(writeAsCounted(pair, 'y', 1'000, 300));
        remove(pair.ours, EVFILT_WRITE);
        std::string all(1 << 20, '\0');
        fcntl(pair.peer, F_SETFL, O_NONBLOCK);
        while (read(pair.peer, all.data(), all.size()) > 0) {
        }
        fcntl(pair.peer, F_SETFL, 0);
    }
}

TEST_P(WriteFilterOfAnyStream, CountOfOneJustAddedNeverBlocksWhateverTheSizeOfTheWritesBefore) {
    for (const size_t piece : {size_t{1}, size_t{100}, size_t{1000}, size_t{60'000}}) {
        SCOPED_TRACE("after pieces of " + std::to_string(piece) + " bytes");
        fillUp(pair.ours, piece);
        ASSERT_NO_FATAL_FAILURE(writeAsCounted(pair, 'y', 1'000, 300, true));
    }
}

TEST_P(WriteFilterOfAnyStream, IsSilentWhileThereIsNoRoomAndWakesWhenThereIs) {
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_TRUE(wait(8, 10).empty());
    std::thread reader([this] {
        std::string all(8 << 20, '\0');
        fcntl(pair.peer, F_SETFL, O_NONBLOCK);
        while (read(pair.peer, all.data(), all.size()) > 0) {
        }
    });
    EXPECT_GT(waitForOne().data, 0);
    reader.join();
}

TEST_P(WriteFilterOfAnyStream, TellsThatThePeerIsGoneWithoutRoomToo) {
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
    pair.peer.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);
}

// A full backlog leaves the connect pending for as long as the test wants.
TEST_F(WriteFilter, OfAPendingConnectIsSilent) {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    ASSERT_EQ(listen(listener, 0), 0);
    std::vector<Descriptor> clients;
    for (bool connected = true; connected;) {
        ASSERT_LT(clients.size(), 20U) << "the backlog never fills";
        clients.push_back(connectTo(port, false));
        add(clients.back(), EVFILT_WRITE);
        connected = !wait(64, 50).empty();
        if (connected) remove(clients.back(), EVFILT_WRITE);
    }
    EXPECT_TRUE(look().empty());
    std::vector<Descriptor> accepted;
    for (size_t i = 0; i < clients.size(); ++i)
        accepted.emplace_back(accept(listener, nullptr, nullptr));
    EXPECT_EQ(waitForOne().flags & EV_EOF, 0);
}

TEST_F(WriteFilter, CountGrowsIfThatOfTheFirstRecordWasNotEnough) {
    for (const auto make : {unixPair, tcpPair}) {
        const Pair pair = make();
        add(pair.ours, EVFILT_READ);
        const Records first = addAndLook(pair.ours);
        ASSERT_EQ(first.size(), 1U);
        const int64_t exact = waitForOne().data;
        EXPECT_GT(exact, first.front().data);
        EXPECT_GT(exact, 50'000);
        remove(pair.ours, EVFILT_WRITE);
        const Records next = addAndLook(pair.ours);
        ASSERT_EQ(next.size(), 1U);
        EXPECT_EQ(next.front().data, exact);
        remove(pair.ours, EVFILT_READ);
        remove(pair.ours, EVFILT_WRITE);
    }
}

TEST_F(WriteFilter, CountOfOneJustAddedFitsTheSmallestSendBuffer) {
    for (const auto make : {unixPair, tcpPair}) {
        const Pair pair = make();
        const int least = 0;
        ASSERT_EQ(setsockopt(pair.ours, SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
        for (const size_t piece : {size_t{1}, size_t{10}, size_t{100}, size_t{1000}}) {
            SCOPED_TRACE("reading pieces of " + std::to_string(piece) + " bytes");
            ASSERT_NO_FATAL_FAILURE(writeAsCounted(pair, 'x', piece, 1'000, true));
        }
    }
}

TEST_F(WriteFilter, OfASmallSendBufferHasRoom) {
    for (const auto make : {unixPair, tcpPair}) {
        Pair pair = make();
        const int least = 1;
        ASSERT_EQ(setsockopt(pair.ours, SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
        add(pair.ours, EVFILT_WRITE);
        for (int i = 0; i < 100; ++i) {
            const Records records = look();
            if (records.empty()) break;
            const std::string bytes(static_cast<size_t>(records.front().data), 'x');
            fcntl(pair.ours, F_SETFL, O_NONBLOCK);
            ASSERT_EQ(::write(pair.ours, bytes.data(), bytes.size()),
                      static_cast<ssize_t>(bytes.size()));
        }
        remove(pair.ours, EVFILT_WRITE);
    }
}

TEST_F(WriteFilter, OfAPeerThatHasOnlyShutItsSendingSideHasNotEnded) {
    for (const auto make : {unixPair, tcpPair}) {
        Pair pair = make();
        fillUp(pair.ours);
        add(pair.ours, EVFILT_READ);
        add(pair.ours, EVFILT_WRITE);
        EXPECT_TRUE(look().empty());
        ASSERT_EQ(shutdown(pair.peer, SHUT_WR), 0);
        EXPECT_EQ(waitForOne().filter, EVFILT_READ);
        fcntl(pair.peer, F_SETFL, O_NONBLOCK);
        struct kevent record = {};
        while (record.filter != EVFILT_WRITE) {
            std::string all(1 << 20, '\0');
            while (read(pair.peer, all.data(), all.size()) > 0) {
            }
            record = wait().back();
        }
        EXPECT_EQ(record.flags & EV_EOF, 0);
        EXPECT_GT(record.data, 0);
        remove(pair.ours, EVFILT_READ);
        remove(pair.ours, EVFILT_WRITE);
    }
}

// Tabs are the worst case: output processing makes eight columns of each.
TEST_F(WriteFilter, CountOfATerminalNeverBlocksEvenIfEveryByteIsATab) {
    const Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    struct termios mode = {};
    ASSERT_EQ(tcgetattr(pair.ours, &mode), 0);
    mode.c_oflag |= OPOST | TAB3;
    ASSERT_EQ(tcsetattr(pair.ours, TCSANOW, &mode), 0);
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    writeAsCounted(pair, '\t', 100, 2'000);
}

TEST_F(WriteFilter, CountOfATerminalThatTakesBytesAsTheyAreNeverBlocks) {
    const Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    setRaw(pair.ours);
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    writeAsCounted(pair, 'x', 100, 2'000);
}

TEST_F(WriteFilter, CountOfATerminalsMasterNeverBlocks) {
    Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    setRaw(pair.ours);
    std::swap(pair.ours, pair.peer);
    fillUp(pair.ours);
    add(pair.ours, EVFILT_WRITE);
    writeAsCounted(pair, 'x', 100, 2'000);
}

class LimitedUnsent : public WriteFilter, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(FromOneByteUp, LimitedUnsent, testing::Values(1, 2, 100, 4096, 65'536));

TEST_P(LimitedUnsent, IsHeededByTheRoomOfATcpSocket) {
    const Pair pair = tcpPair();
    const int limit = GetParam();
    ASSERT_EQ(setsockopt(pair.ours, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &limit, sizeof limit), 0);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_GT(waitForOne().data, 0);
    writeAsCounted(pair, 'x', 1'000, 2'000);
}

TEST_P(LimitedUnsent, IsHeededByTheRoomOfAFilterJustAddedWhateverTheSegments) {
    for (const int segment : {88, 536, 0}) {
        SCOPED_TRACE("segments of " + std::to_string(segment) + " bytes");
        const Pair pair = tcpPair();
        const int limit = GetParam();
        ASSERT_EQ(setsockopt(pair.ours, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &limit, sizeof limit), 0);
        if (segment != 0) {
            ASSERT_EQ(setsockopt(pair.ours, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment), 0);
        }
        ASSERT_NO_FATAL_FAILURE(writeAsCounted(pair, 'x', 1'000, 2'000, true));
    }
}

// The owner hears of the end by a write only, so there must be something to write.
TEST_F(WriteFilter, OfAFullSocketWhosePeerIsGoneHasRoomForTheWriteThatFails) {
    const Pair pair = unixPair();
    const int flags = fcntl(pair.ours, F_GETFL);
    fcntl(pair.ours, F_SETFL, flags | O_NONBLOCK);
    const std::string much(1 << 20, 'x');
    while (write(pair.ours, much.data(), much.size()) > 0) {
        // until it is full
    }
    fcntl(pair.ours, F_SETFL, flags);
    add(pair.ours, EVFILT_WRITE);
    ASSERT_TRUE(look().empty());
    ASSERT_EQ(shutdown(pair.peer, SHUT_RDWR), 0);
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_GE(record.data, 1);
    EXPECT_EQ(::send(pair.ours, "x", 1, MSG_NOSIGNAL), -1);
}

}  // namespace
