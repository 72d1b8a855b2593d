#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

#include "tests/platform/kernel_queue.h"

namespace {

using WriteFilter = KernelQueueTest;

class WriteFilterOfAnyStream : public KernelQueueTest,
                               public testing::WithParamInterface<Pair (*)()> {
protected:
    Pair pair = GetParam()();
};

INSTANTIATE_TEST_SUITE_P(UnixTcpAndPipe, WriteFilterOfAnyStream,
                         testing::Values(unixPair, tcpPair, writablePipePair));

TEST_P(WriteFilterOfAnyStream, IsReadyWithRoomWhileThePeerListens) {
    add(pair.ours, EVFILT_WRITE);
    for (int i = 0; i < 3; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.filter, EVFILT_WRITE);
        EXPECT_GT(record.data, 0);
        EXPECT_EQ(record.flags & EV_EOF, 0);
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

TEST_F(WriteFilter, OfATerminalIsReady) {
    const Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    add(pair.ours, EVFILT_WRITE);
    EXPECT_GT(waitForOne().data, 0);
}

}  // namespace
