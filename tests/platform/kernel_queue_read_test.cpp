#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "tests/platform/kernel_queue.h"

namespace {

using ReadFilter = KernelQueueTest;

class ReadFilterOfAnyStream : public KernelQueueTest,
                              public testing::WithParamInterface<Pair (*)()> {};

INSTANTIATE_TEST_SUITE_P(UnixTcpAndPipe, ReadFilterOfAnyStream,
                         testing::Values(unixPair, tcpPair, pipePair));

TEST_P(ReadFilterOfAnyStream, CountsExactlyWhatAReadWouldFind) {
    Pair pair = GetParam()();
    add(pair.ours, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
    send(pair.peer, std::string(1000, 'x'));
    while (waitForOne().data != 1003) {
        // TCP on loopback may take a moment; the count only grows.
    }
    EXPECT_EQ(receive(pair.ours, 1000).size(), 1000U);
    EXPECT_EQ(waitForOne().data, 3);
}

TEST_P(ReadFilterOfAnyStream, StaysReadyUntilTheBytesAreRead) {
    Pair pair = GetParam()();
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_TRUE(look().empty());
}

TEST_P(ReadFilterOfAnyStream, TellsTheEndWhileBytesAreLeft) {
    Pair pair = GetParam()();
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "abc");
    pair.peer.reset();
    struct kevent record = waitForOne();
    while ((record.flags & EV_EOF) == 0)
        record = waitForOne();
    EXPECT_EQ(record.data, 3);
    EXPECT_EQ(record.fflags, 0U);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    record = waitForOne();
    EXPECT_EQ(record.data, 0);
    EXPECT_NE(record.flags & EV_EOF, 0);
}

TEST_F(ReadFilter, TellsTheEndWhenThePeerShutsItsSendingSideOnly) {
    for (const auto make : {unixPair, tcpPair}) {
        Pair pair = make();
        add(pair.ours, EVFILT_READ);
        ASSERT_EQ(shutdown(pair.peer, SHUT_WR), 0);
        const struct kevent record = waitForOne();
        EXPECT_NE(record.flags & EV_EOF, 0);
        EXPECT_EQ(record.data, 0);
        remove(pair.ours, EVFILT_READ);
    }
}

TEST_F(ReadFilter, CarriesThePendingErrorOfAResetConnectionAndKeepsIt) {
    Pair pair = tcpPair();
    add(pair.ours, EVFILT_READ);
    const struct linger abortive = {.l_onoff = 1, .l_linger = 0};
    ASSERT_EQ(setsockopt(pair.peer, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive), 0);
    pair.peer.reset();
    for (int i = 0; i < 2; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_NE(record.flags & EV_EOF, 0);
        EXPECT_EQ(record.fflags, static_cast<uint32_t>(ECONNRESET));
    }
}

TEST_F(ReadFilter, OfAListeningSocketIsReadyWhileConnectionsWait) {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    add(listener, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    const Descriptor first = connectTo(port);
    const Descriptor second = connectTo(port);
    EXPECT_GE(waitForOne().data, 1);
    Descriptor(accept(listener, nullptr, nullptr)).reset();
    EXPECT_GE(waitForOne().data, 1);
    Descriptor(accept(listener, nullptr, nullptr)).reset();
    EXPECT_TRUE(look().empty());
}

TEST_F(ReadFilter, OfAConnectionInProgressIsSilentUntilItIsDecided) {
    uint16_t port = 0;
    { const Descriptor listener = tcpListener(port); }
    const Descriptor client = connectTo(port, false);
    add(client, EVFILT_READ);
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
}

TEST_F(ReadFilter, OfAnUnconnectedSocketIsSilentAndWakesWithTheConnection) {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    const Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
    add(client, EVFILT_READ);
    add(client, EVFILT_WRITE);
    EXPECT_TRUE(wait(8, 20).empty());
    ASSERT_EQ(connectSocket(client, port), 0);
    EXPECT_EQ(waitForOne().filter, EVFILT_WRITE);
    remove(client, EVFILT_WRITE);
    const Descriptor accepted(accept(listener, nullptr, nullptr));
    send(accepted, "hello");
    EXPECT_EQ(waitForOne().data, 5);
}

TEST_F(ReadFilter, OfATerminalCountsTheBytesOfALine) {
    const auto [terminal, master] = terminalPair();
    if (terminal == -1) GTEST_SKIP() << kNoTerminals;
    add(terminal, EVFILT_READ);
    send(master, "hello\n");
    EXPECT_EQ(waitForOne().data, 6);
    EXPECT_EQ(receive(terminal, 6), "hello\n");
}

}  // namespace
