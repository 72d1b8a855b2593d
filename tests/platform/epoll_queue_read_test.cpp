// What reading finds at the edges. macOS tells no error of a Unix peer that closed with bytes
// unread, counts a TCP socket's bytes up to the one out of band, and has no such byte on a Unix
// socket; of datagrams without bytes, FIFOs and terminals' control characters, masters and ends it
// promises nothing.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tests/platform/kernel_queue.h"

namespace {

using ReadFilter = KernelQueueTest;

TEST_F(ReadFilter, CarriesTheErrorOfAUnixPeerThatClosedWithBytesUnread) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    send(pair.ours, "unread");
    pair.peer.reset();
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_EQ(record.fflags, static_cast<uint32_t>(ECONNRESET));
    EXPECT_EQ(record.data, 0);
}

// A Unix datagram of no bytes makes a socket readable, with nothing to read.
TEST_F(ReadFilter, SwallowsAWakeUpWithoutBytesAndGoesOnAfterwards) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    EXPECT_TRUE(wait(8, 20).empty());
    char nothing = 0;
    ASSERT_EQ(recv(ours, &nothing, 1, 0), 0);
    ASSERT_EQ(::send(peer, "abcd", 4, 0), 4);
    EXPECT_EQ(waitForOne().data, 4);
}

// Nothing arrives when the empty one is read: what has come behind it was told of before.
TEST_F(ReadFilter, FindsTheDatagramBehindAnEmptyOneThatHasBeenRead) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    EXPECT_TRUE(look().empty());
    ASSERT_EQ(::send(peer, "abcd", 4, 0), 4);
    EXPECT_TRUE(look().empty());
    char nothing = 0;
    ASSERT_EQ(recv(ours, &nothing, 1, 0), 0);
    const Records records = look();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].data, 4);
}

TEST_F(ReadFilter, OfAFifoFollowsItsWriters) {
    Pair fifo = fifoPair(O_RDONLY | O_NONBLOCK, O_WRONLY);
    add(fifo.ours, EVFILT_READ);
    send(fifo.peer, "12345");
    EXPECT_EQ(waitForOne().data, 5);
    fifo.peer.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);
}

TEST_F(ReadFilter, OfATerminalCountsAnEndOfFileCharacterAsOneByteThatTheReadDoesNotFind) {
    const auto [terminal, master] = terminalPair();
    if (terminal == -1) GTEST_SKIP() << kNoTerminals;
    add(terminal, EVFILT_READ);
    send(master, "\x04");
    EXPECT_EQ(waitForOne().data, 1);
    EXPECT_EQ(receive(terminal, 1), "");
    EXPECT_TRUE(look().empty());
}

// A read passes over the byte, and would block if there were no other.
TEST_F(ReadFilter, OfAUnixSocketDoesNotCountAByteSentOutOfBand) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    if (::send(pair.peer, "!", 1, MSG_OOB) != 1)
        GTEST_SKIP() << "left out: no byte can be sent out of band here";
    EXPECT_TRUE(wait(8, 20).empty());
    send(pair.peer, "abc");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_TRUE(look().empty());
    send(pair.peer, "de");
    EXPECT_EQ(waitForOne().data, 2);
    EXPECT_EQ(receive(pair.ours, 2), "de");
    ASSERT_EQ(::send(pair.peer, "!", 1, MSG_OOB), 1);
    char urgent = 0;
    ASSERT_EQ(recv(pair.ours, &urgent, 1, MSG_OOB), 1);
    EXPECT_TRUE(wait(8, 20).empty());
    pair.peer.reset();
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_EQ(record.data, 0);
}

TEST_F(ReadFilter, LeftOverOfAUnixSocketDoesNotCountAByteSentOutOfBandSince) {
    std::array<Pair, 2> pairs = {unixPair(), unixPair()};
    for (Pair& pair : pairs) {
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    const auto first = static_cast<int>(wait(1).at(0).ident);
    Pair& other = first == pairs[0].ours ? pairs[1] : pairs[0];
    EXPECT_EQ(receive(first, 1), "x");
    EXPECT_EQ(receive(other.ours, 1), "x");
    if (::send(other.peer, "!", 1, MSG_OOB) != 1)
        GTEST_SKIP() << "left out: no byte can be sent out of band here";
    EXPECT_TRUE(look().empty());
    send(other.peer, "ab");
    EXPECT_EQ(waitForOne().data, 2);
}

// The kernel goes on counting such a byte when a read has passed over it.
TEST_F(ReadFilter, OfAUnixSocketDoesNotCountAByteSentOutOfBandThatWasPassedOverBefore) {
    const auto [ours, peer] = unixPair();
    if (::send(peer, "!", 1, MSG_OOB) != 1)
        GTEST_SKIP() << "left out: no byte can be sent out of band here";
    char nothing = 0;
    EXPECT_EQ(recv(ours, &nothing, 1, MSG_DONTWAIT), -1);
    add(ours, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    send(peer, "ab");
    EXPECT_EQ(waitForOne().data, 2);
    EXPECT_EQ(receive(ours, 2), "ab");
    EXPECT_TRUE(look().empty());
}

TEST_F(ReadFilter, AddedAgainDoesNotCountAByteSentOutOfBandThatWasPassedOver) {
    const auto [ours, peer] = unixPair();
    add(ours, EVFILT_READ);
    if (::send(peer, "!", 1, MSG_OOB) != 1)
        GTEST_SKIP() << "left out: no byte can be sent out of band here";
    send(peer, "ab");
    EXPECT_EQ(waitForOne().data, 2);
    EXPECT_EQ(receive(ours, 2), "ab");
    remove(ours, EVFILT_READ);
    add(ours, EVFILT_READ);
    send(peer, "cd");
    EXPECT_EQ(waitForOne().data, 2);
}

TEST_F(ReadFilter, CountsAllBytesOfAUnixSocketThatWaitedForIt) {
    const auto [ours, peer] = unixPair();
    const std::string bytes(100'000, 'x');
    send(peer, bytes);
    add(ours, EVFILT_READ);
    EXPECT_EQ(waitForOne().data, 100'000);
    EXPECT_EQ(receive(ours, bytes.size()), bytes);
    EXPECT_TRUE(look().empty());
}

TEST_F(ReadFilter, OfATcpSocketCountsTheBytesBehindOneSentOutOfBand) {
    Pair pair = tcpPair();
    add(pair.ours, EVFILT_READ);
    ASSERT_EQ(::send(pair.peer, "!", 1, MSG_OOB), 1);
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_TRUE(look().empty());
    ASSERT_EQ(::send(pair.peer, "?", 1, MSG_OOB), 1);
    send(pair.peer, "de");
    ASSERT_EQ(shutdown(pair.peer, SHUT_WR), 0);
    struct kevent record = waitForOne();
    while ((record.flags & EV_EOF) == 0)
        record = waitForOne();
    EXPECT_EQ(record.data, 2);
}

// What a master in packet mode learns of the terminal comes without bytes of output.
TEST_F(ReadFilter, OfATerminalsMasterInPacketModeIsReadyForItsStatusByte) {
    const auto [terminal, master] = terminalPair();
    if (terminal == -1) GTEST_SKIP() << kNoTerminals;
    const int on = 1;
    ASSERT_EQ(ioctl(master, TIOCPKT, &on), 0);
    add(master, EVFILT_READ);
    ASSERT_EQ(tcflush(terminal, TCIFLUSH), 0);
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.data, 1);
    EXPECT_EQ(record.flags & EV_EOF, 0);
    EXPECT_EQ(receive(master, 1), std::string(1, TIOCPKT_FLUSHREAD));
    EXPECT_TRUE(look().empty());
}

TEST_F(ReadFilter, OfATerminalThatWasHungUpBeforeHasEnded) {
    Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    pair.peer.reset();
    add(pair.ours, EVFILT_READ);
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_EQ(record.data, 0);
}

TEST_F(ReadFilter, StaysReadyUntilTheBytesAreReadAlsoAfterAWakeUpWithoutAny) {
    const auto [ours, peer] = datagramPair();
    add(ours, EVFILT_READ);
    ASSERT_EQ(::send(peer, "", 0, 0), 0);
    EXPECT_TRUE(look().empty());
    char nothing = 0;
    ASSERT_EQ(recv(ours, &nothing, 1, 0), 0);
    ASSERT_EQ(::send(peer, "abcd", 4, 0), 4);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(waitForOne().data, 4);
}

}  // namespace
