#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "tests/platform/kernel_queue.h"

namespace {

using WriteFilter = KernelQueueTest;

class WriteFilterOfAnyStream : public KernelQueueTest,
                               public testing::WithParamInterface<Pair (*)()> {
protected:
    WriteFilterOfAnyStream() {
        pair = GetParam()();
        if (GetParam() == pipePair) std::swap(pair.ours, pair.peer);
    }

    // Puts pieces of the given size in until the kernel refuses.
    void fill(size_t piece) const {
        const std::string bytes(piece, 'x');
        fcntl(pair.ours, F_SETFL, O_NONBLOCK);
        while (::write(pair.ours, bytes.data(), bytes.size()) > 0) {
        }
        fcntl(pair.ours, F_SETFL, 0);
    }

    Pair pair;
};

INSTANTIATE_TEST_SUITE_P(UnixTcpAndPipe, WriteFilterOfAnyStream,
                         testing::Values(unixPair, tcpPair, pipePair));

TEST_P(WriteFilterOfAnyStream, IsReadyWithRoomWhileThePeerListens) {
    add(pair.ours, EVFILT_WRITE);
    for (int i = 0; i < 3; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.filter, EVFILT_WRITE);
        EXPECT_GT(record.data, 0);
        EXPECT_EQ(record.flags & EV_EOF, 0);
    }
}

// A count that is too large would block the write, and the test with it. It is checked without
// blocking first, so that a failure is a message.
TEST_P(WriteFilterOfAnyStream, CountNeverBlocksWhateverTheSizeOfTheWritesBefore) {
    for (const size_t piece :
         {size_t{1}, size_t{100}, size_t{1000}, size_t{4096}, size_t{60'000}}) {
        fill(piece);
        add(pair.ours, EVFILT_WRITE);
        std::string drained(1'000, '\0');
        for (int round = 0; round < 300; ++round) {
            const Records records = look();
            if (records.empty()) {
                ASSERT_GT(read(pair.peer, drained.data(), drained.size()), 0);
                continue;
            }
            ASSERT_GT(records.front().data, 0);
            const std::string bytes(static_cast<size_t>(records.front().data), 'y');
            fcntl(pair.ours, F_SETFL, O_NONBLOCK);
            ASSERT_EQ(::write(pair.ours, bytes.data(), bytes.size()),
                      static_cast<ssize_t>(bytes.size()))
                << "after pieces of " << piece << " bytes, round " << round;
            fcntl(pair.ours, F_SETFL, 0);
        }
        remove(pair.ours, EVFILT_WRITE);
        std::string all(1 << 20, '\0');
        fcntl(pair.peer, F_SETFL, O_NONBLOCK);
        while (read(pair.peer, all.data(), all.size()) > 0) {
        }
        fcntl(pair.peer, F_SETFL, 0);
    }
}

TEST_P(WriteFilterOfAnyStream, BlockingWritesOfTheCountedSizeMoveEverythingToASlowReader) {
    constexpr size_t kTotal = 2 << 20;
    std::thread reader([this] {
        std::string piece(3000, '\0');
        for (size_t left = kTotal; left > 0;) {
            const ssize_t size = read(pair.peer, piece.data(), piece.size());
            ASSERT_GT(size, 0);
            left -= static_cast<size_t>(size);
        }
    });
    add(pair.ours, EVFILT_WRITE);
    for (size_t left = kTotal; left > 0;) {
        const struct kevent record = waitForOne();
        const std::string bytes(std::min(left, static_cast<size_t>(record.data)), 'z');
        const ssize_t sent = ::write(pair.ours, bytes.data(), bytes.size());
        ASSERT_EQ(sent, static_cast<ssize_t>(bytes.size()));
        left -= bytes.size();
    }
    reader.join();
}

TEST_P(WriteFilterOfAnyStream, IsSilentWhileThereIsNoRoomAndWakesWhenThereIs) {
    fill(1000);
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

TEST_P(WriteFilterOfAnyStream, TellsThatThePeerIsGone) {
    signal(SIGPIPE, SIG_IGN);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_EQ(waitForOne().flags & EV_EOF, 0);
    pair.peer.reset();
    struct kevent record = waitForOne();
    while ((record.flags & EV_EOF) == 0) {
        // TCP learns it from the answer to the first bytes.
        ssize_t ignored = ::write(pair.ours, "x", 1);
        static_cast<void>(ignored);
        record = waitForOne();
    }
    EXPECT_NE(record.flags & EV_EOF, 0);
}

TEST_P(WriteFilterOfAnyStream, TellsThatThePeerIsGoneWithoutRoomToo) {
    fill(1000);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
    pair.peer.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);
}

TEST_F(WriteFilter, OfAFailedConnectCarriesTheError) {
    uint16_t port = 0;
    { const Descriptor listener = tcpListener(port); }
    const Descriptor client = connectTo(port, false);
    add(client, EVFILT_WRITE);
    for (int i = 0; i < 2; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_NE(record.flags & EV_EOF, 0);
        EXPECT_EQ(record.fflags, static_cast<uint32_t>(ECONNREFUSED));
    }
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

TEST_F(WriteFilter, OfATerminalIsReady) {
    const Descriptor master(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const Descriptor terminal(open(ptsname(master), O_RDWR | O_NOCTTY));
    add(terminal, EVFILT_WRITE);
    EXPECT_GT(waitForOne().data, 0);
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

}  // namespace
