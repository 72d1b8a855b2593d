// How FIFOs, terminals and files begin and end, in one queue and in two. macOS promises nothing of
// the ends of FIFOs and terminals, and takes an end-of-file character for one of the bytes of a
// line.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <utility>

#include "tests/platform/kernel_queue.h"

namespace {

class StreamEnd : public KernelQueueTest {
protected:
    bool has(int fd, int filter) {
        const int error = change(static_cast<uint64_t>(fd), filter, EV_ENABLE);
        EXPECT_TRUE(error == 0 || error == ENOENT);
        return error == 0;
    }

    // What is ready now, by filter.
    std::map<int, struct kevent> readiness() {
        std::map<int, struct kevent> found;
        for (const struct kevent& record : look())
            EXPECT_TRUE(found.emplace(record.filter, record).second);
        return found;
    }
};

// FIFOs and pipes

TEST_F(StreamEnd, FifoThatNobodyWritesToYetIsSilentAndFollowsItsWriters) {
    Pair fifo = fifoPair(O_RDONLY | O_NONBLOCK, -1);
    const std::string name = "/proc/self/fd/" + std::to_string(fifo.ours);
    add(fifo.ours, EVFILT_READ);
    EXPECT_TRUE(wait(8, 20).empty());
    for (int i = 0; i < 2; ++i) {
        fifo.peer = Descriptor(open(name.c_str(), O_WRONLY));
        EXPECT_TRUE(look().empty());
        send(fifo.peer, "abc");
        struct kevent record = waitForOne();
        EXPECT_EQ(record.data, 3);
        EXPECT_EQ(record.flags & EV_EOF, 0);
        EXPECT_EQ(receive(fifo.ours, 3), "abc");
        EXPECT_TRUE(look().empty());
        fifo.peer.reset();
        record = waitForOne();
        EXPECT_EQ(record.data, 0);
        EXPECT_NE(record.flags & EV_EOF, 0);
    }
}

TEST_F(StreamEnd, FifoOpenedBothWaysNeverEnds) {
    Pair fifo = fifoPair(O_RDWR, O_WRONLY);
    add(fifo.ours, EVFILT_READ);
    add(fifo.ours, EVFILT_WRITE);
    send(fifo.peer, "ab");
    fifo.peer.reset();
    send(fifo.ours, "c");
    const auto found = readiness();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found.at(EVFILT_READ).data, 3);
    EXPECT_GT(found.at(EVFILT_WRITE).data, 0);
    for (const auto& [filter, record] : found)
        EXPECT_EQ(record.flags & EV_EOF, 0);
}

TEST_F(StreamEnd, FifoWhoseReaderIsGoneHasEndedForTheWriter) {
    for (const bool isFull : {false, true}) {
        Pair fifo = fifoPair(O_RDONLY | O_NONBLOCK, O_WRONLY);
        if (isFull) fillUp(fifo.peer);
        add(fifo.peer, EVFILT_WRITE);
        EXPECT_EQ(look().empty(), isFull);
        fifo.ours.reset();
        EXPECT_NE(waitForOne().flags & EV_EOF, 0);
        remove(fifo.peer, EVFILT_WRITE);
    }
}

TEST_F(StreamEnd, FilterOnTheWrongEndOfAPipeIsSilentUntilTheOtherEndIsGone) {
    Pair pipe = pipePair();
    send(pipe.peer, "abc");
    add(pipe.ours, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
    pipe.peer.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);

    remove(pipe.ours, EVFILT_WRITE);
    pipe = pipePair();
    send(pipe.peer, "abc");
    add(pipe.peer, EVFILT_READ);
    EXPECT_TRUE(look().empty());
    pipe.ours.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);
}

// Terminals

class TerminalEnd : public StreamEnd {
protected:
    void SetUp() override {
        pair = terminalPair();
        if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    }

    Pair pair;
};

TEST_F(TerminalEnd, LineIsCountedOnceItIsComplete) {
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "abc");
    EXPECT_TRUE(wait(8, 20).empty());
    send(pair.peer, "\n");
    EXPECT_EQ(waitForOne().data, 4);
    send(pair.peer, "de\nf");
    while (waitForOne().data != 7) {
        // The second line is on its way through the terminal.
    }
    EXPECT_EQ(receive(pair.ours, 7), "abc\n");
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(receive(pair.ours, 3), "de\n");
    EXPECT_TRUE(look().empty());
}

TEST_F(TerminalEnd, EndOfFileCharacterBehindBytesHandsThemOutAndIsGoneWithThem) {
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "abc\x04");
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.data, 3);
    EXPECT_EQ(record.flags & EV_EOF, 0);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_TRUE(look().empty());
}

TEST_F(TerminalEnd, GoesOnAfterAnEndOfFileCharacterThatHasBeenRead) {
    add(pair.ours, EVFILT_READ);
    for (int i = 0; i < 2; ++i) {
        send(pair.peer, "\x04");
        for (int again = 0; again < 2; ++again)
            EXPECT_EQ(waitForOne().data, 1);
        EXPECT_EQ(receive(pair.ours, 1), "");
        EXPECT_TRUE(look().empty());
        send(pair.peer, "x\n");
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.data, 2);
        EXPECT_EQ(record.flags & EV_EOF, 0);
        EXPECT_EQ(receive(pair.ours, 2), "x\n");
    }
}

TEST_F(TerminalEnd, InRawModeEveryByteCounts) {
    setRaw(pair.ours);
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "\x04");
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.data, 1);
    EXPECT_EQ(record.flags & EV_EOF, 0);
    EXPECT_EQ(receive(pair.ours, 1), "\x04");
    EXPECT_TRUE(look().empty());
    send(pair.peer, "ab\nc");
    while (waitForOne().data != 4) {
        // The rest is on its way through the terminal.
    }
    EXPECT_EQ(receive(pair.ours, 4), "ab\nc");
}

TEST_F(TerminalEnd, HangUpEndsReadingAndWriting) {
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_EQ(readiness().size(), 1U);
    pair.peer.reset();
    const auto found = readiness();
    ASSERT_EQ(found.size(), 2U);
    for (const auto& [filter, record] : found)
        EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_EQ(found.at(EVFILT_READ).data, 0);
    EXPECT_EQ(receive(pair.ours, 1), "");
}

TEST_F(TerminalEnd, MasterIsSilentAtFirstAndCountsWhatTheTerminalShows) {
    add(pair.peer, EVFILT_READ);
    EXPECT_TRUE(wait(8, 20).empty());
    setRaw(pair.ours);
    send(pair.ours, "shown");
    while (waitForOne().data != 5) {
        // The rest is on its way through the terminal.
    }
    EXPECT_EQ(receive(pair.peer, 5), "shown");
    EXPECT_TRUE(look().empty());
}

TEST_F(TerminalEnd, MasterEndsWithTheLastOfTheTerminalAfterItsBytes) {
    setRaw(pair.ours);
    add(pair.peer, EVFILT_READ);
    add(pair.peer, EVFILT_WRITE);
    send(pair.ours, "last");
    pair.ours.reset();
    struct kevent record = {};
    while (record.filter != EVFILT_READ || record.data != 4 || (record.flags & EV_EOF) == 0)
        record = wait(1).at(0);
    EXPECT_EQ(receive(pair.peer, 4), "last");
    for (const auto& [filter, end] : readiness()) {
        EXPECT_NE(end.flags & EV_EOF, 0) << filter;
        if (filter == EVFILT_READ) {
            EXPECT_EQ(end.data, 0);
        }
    }
    EXPECT_EQ(receive(pair.peer, 1), "");
}

// Any descriptor, at both ends

struct TwoWay {
    const char* name;
    std::function<Pair()> make;
};

void PrintTo(const TwoWay& kind, std::ostream* out) {
    *out << kind.name;
}

class BothEnds : public StreamEnd, public testing::WithParamInterface<TwoWay> {
protected:
    // What is written to feed can be read from both.
    void SetUp() override {
        pair = GetParam().make();
        if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    }

    void feed(const std::string& bytes) const {
        if (pair.peer != -1) {
            send(pair.peer, bytes);
            return;
        }
        // By another opening of the file, so that ours keeps its position.
        const std::string name = "/proc/self/fd/" + std::to_string(pair.ours);
        const Descriptor other(open(name.c_str(), O_WRONLY | O_APPEND));
        send(other, bytes);
    }

    void addToBothQueues() {
        for (int i = 0; i < 2; ++i) {
            add(pair.ours, EVFILT_READ);
            add(pair.ours, EVFILT_WRITE);
            std::swap(queue, otherQueue);
        }
    }

    Pair pair;
    Descriptor otherQueue = Descriptor(kqueue());
};

Pair rawTerminal() {
    Pair pair = terminalPair();
    if (pair.ours != -1) setRaw(pair.ours);
    return pair;
}

Pair rawMaster() {
    Pair pair = rawTerminal();
    std::swap(pair.ours, pair.peer);
    return pair;
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, BothEnds,
                         testing::Values(TwoWay{"Unix", unixPair}, TwoWay{"Tcp", tcpPair},
                                         TwoWay{"Fifo", [] { return fifoPair(O_RDWR, O_WRONLY); }},
                                         TwoWay{"Terminal", rawTerminal},
                                         TwoWay{"Master", rawMaster},
                                         TwoWay{"File",
                                                [] {
                                                    return Pair{emptyFile(), Descriptor()};
                                                }}),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(BothEnds, OneDescriptorReadsAndWrites) {
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    EXPECT_FALSE(readiness().contains(EVFILT_READ));
    feed("abc");
    std::map<int, struct kevent> found;
    while (!found.contains(EVFILT_READ) || found.at(EVFILT_READ).data < 3)
        found = readiness();
    EXPECT_EQ(found.at(EVFILT_READ).data, 3);
    EXPECT_GT(found.at(EVFILT_WRITE).data, 0);
    remove(pair.ours, EVFILT_WRITE);
    EXPECT_EQ(waitForOne().filter, EVFILT_READ);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_TRUE(look().empty());
}

TEST_P(BothEnds, OneDescriptorInTwoQueuesIsReadyInBoth) {
    addToBothQueues();
    feed("abc");
    for (int i = 0; i < 2; ++i) {
        std::map<int, struct kevent> found;
        while (!found.contains(EVFILT_READ) || found.at(EVFILT_READ).data < 3)
            found = readiness();
        EXPECT_EQ(found.at(EVFILT_READ).data, 3);
        EXPECT_TRUE(found.contains(EVFILT_WRITE));
        std::swap(queue, otherQueue);
    }
    remove(pair.ours, EVFILT_READ);
    remove(pair.ours, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
    std::swap(queue, otherQueue);
    EXPECT_EQ(readiness().size(), 2U);
    EXPECT_EQ(receive(pair.ours, 3), "abc");
    EXPECT_FALSE(readiness().contains(EVFILT_READ));
}

TEST_P(BothEnds, ClosingADescriptorRemovesItFromTwoQueues) {
    addToBothQueues();
    feed("abc");
    const int number = pair.ours;
    pair.ours.reset();
    const Pair next = unixPair();
    if (next.ours != number) pair.ours = Descriptor(dup2(next.ours, number));
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(look().empty());
        EXPECT_FALSE(has(number, EVFILT_READ));
        EXPECT_FALSE(has(number, EVFILT_WRITE));
        std::swap(queue, otherQueue);
    }
}

}  // namespace
