#include "kqueue/HXKQueueStreamSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tests/kqueue/loop_fixture.h"
#include "tests/support/quiet_send.h"

namespace {

class StreamSocket : public LoopTest {
protected:
    StreamSocket() : stream(makeStream()) {}
    ~StreamSocket() override {
        stopLoop();
        if (stream.peer != -1) close(stream.peer);
    }

    void send(const std::string& bytes) const {
        ASSERT_EQ(::write(stream.peer, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    EventRecorder events;
    Stream stream;
};

TEST_F(StreamSocket, LogsItsCreation) {
    EXPECT_TRUE(log.has("debug " + tagOf(stream.source.get()) + ": stream socket(" +
                        std::to_string(stream.sock) + ") created"));
}

TEST_F(StreamSocket, ConnectedOneSaysSoInsideStartObjectOnTheCallersThread) {
    loop->startObject(stream.source, events.block());
    const auto all = events.all();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].code, HXKQueueEventConnected);
    EXPECT_EQ(all[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(all[0].hadBytes);
    EXPECT_EQ(all[0].size, 0U);
    EXPECT_FALSE(all[0].hadDropSize);
}

TEST_F(StreamSocket, DataComesOnTheIOThreadWithTheDropCountPresetToAllOfIt) {
    loop->startObject(stream.source, events.block());
    send("hello");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const RecordedEvent event = events.last();
    EXPECT_EQ(event.bytes, "hello");
    EXPECT_EQ(event.size, 5U);
    EXPECT_TRUE(event.hadDropSize);
    EXPECT_EQ(event.presetDropSize, 5U);
    EXPECT_NE(event.thread, std::this_thread::get_id());
}

TEST_F(StreamSocket, BlockThatLeavesTheDropCountAloneConsumesEverything) {
    loop->startObject(stream.source, events.block());
    send("ab");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    send("cd");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "cd");
}

TEST_F(StreamSocket, PausedOneLeavesItsBytesInTheKernelUntilItResumes) {
    loop->startObject(stream.source, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) stream.source->pauseReading();
        return true;
    }));
    send("a");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    send("b");
    settle();
    settle();
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
    stream.source->resumeReading();
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "b");
}

TEST_F(StreamSocket, BytesTheBlockKeepsComeAgainBeforeTheNewOnes) {
    loop->startObject(stream.source, events.dropping(0));
    send("ab");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    send("cd");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "abcd");
}

TEST_F(StreamSocket, BytesBehindTheDroppedOnesAreKept) {
    loop->startObject(stream.source, events.dropping(3));
    send("abcde");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    send("f");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "def");
}

TEST_F(StreamSocket, DropCountBeyondTheBufferEmptiesIt) {
    loop->startObject(stream.source, events.dropping(UINT64_MAX));
    send("ab");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    send("cd");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "cd");
}

TEST_F(StreamSocket, EndShowsTheBytesThatAreLeftAndThenDropsThem) {
    loop->startObject(stream.source, events.block([](const RecordedEvent& event, uint64_t* drop) {
        if (event.code == HXKQueueEventData) *drop = 0;
        return true;
    }));
    send("left");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    close(stream.peer);
    stream.peer = -1;
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated, 2));
    std::vector<RecordedEvent> ends = events.all();
    std::erase_if(ends, [](const RecordedEvent& e) { return e.code != HXKQueueEventTerminated; });
    EXPECT_EQ(ends[0].bytes, "left");
    EXPECT_EQ(ends[0].presetDropSize, 4U);
    EXPECT_EQ(ends[1].bytes, "");
}

TEST_F(StreamSocket, WritesArriveWholeAndInOrder) {
    loop->startObject(stream.source, events.block());
    std::string sent;
    for (int i = 0; i < 200; ++i) {
        const std::string piece(static_cast<size_t>(i * 13 % 2000),
                                static_cast<char>('a' + i % 26));
        EXPECT_TRUE(loop->write(stream.source, piece.data(), piece.size()));
        sent += piece;
    }
    std::string received(sent.size(), '\0');
    ASSERT_EQ(recv(stream.peer, received.data(), received.size(), MSG_WAITALL),
              static_cast<ssize_t>(sent.size()));
    EXPECT_EQ(received, sent);
}

TEST_F(StreamSocket, WritingToAPeerThatIsGoneEndsInTerminatedAndNoSignal) {
    loop->startObject(stream.source, events.block());
    ASSERT_EQ(shutdown(stream.peer, SHUT_RD), 0);
    loop->write(stream.source, "x", 1);
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated));
}

// The end of reading would be told in every iteration.
TEST_F(StreamSocket, WritingAfterThePeerHasClosedEndsInTerminatedAndNoSignal) {
    loop->startObject(stream.source, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventTerminated) stream.source->pauseReading();
        return true;
    }));
    close(std::exchange(stream.peer, -1));
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated));
    settle();
    const size_t before = events.count(HXKQueueEventTerminated);
    loop->write(stream.source, "x", 1);
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated, before + 1));
    EXPECT_EQ(stream.source->pendingBytes(), 1U);
}

TEST_F(StreamSocket, StopClosesTheDescriptorItOwns) {
    loop->startObject(stream.source, events.block());
    loop->stopObject(stream.source);
    char byte = 0;
    EXPECT_EQ(read(stream.peer, &byte, 1), 0);
    settle();
    EXPECT_EQ(fcntl(stream.sock, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(StreamSocket, StopLeavesABorrowedDescriptorOpenAndSilent) {
    Stream borrowed = makeStream(false);
    loop->startObject(borrowed.source, events.block());
    loop->stopObject(borrowed.source);
    settle();
    ASSERT_EQ(::write(borrowed.peer, "still here", 10), 10);
    settle();
    EXPECT_EQ(events.count(HXKQueueEventData), 0U);
    char bytes[10];
    EXPECT_EQ(recv(borrowed.sock, bytes, 10, MSG_WAITALL), 10);
    close(borrowed.peer);
    close(borrowed.sock);
}

TEST_F(StreamSocket, NewBlockTakesTheOldOnesPlace) {
    EventRecorder second;
    loop->startObject(stream.source, events.block());
    loop->startObject(stream.source, second.block());
    send("x");
    ASSERT_TRUE(second.waitFor(HXKQueueEventData));
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_EQ(second.codes(), (std::vector<int32_t>{HXKQueueEventConnected, HXKQueueEventData}));
}

TEST_F(StreamSocket, BlockMayBeReplacedWhileItRuns) {
    for (int i = 0; i < 200; ++i) {
        loop->startObject(stream.source, events.block());
        send("x");
    }
    ASSERT_TRUE(events.waitForBytes(200));
    EXPECT_EQ(events.allBytes(), std::string(200, 'x'));
}

TEST_F(StreamSocket, StopEndsBothDirectionsWhileADuplicateLives) {
    const int duplicate = dup(stream.sock);
    loop->startObject(stream.source, events.block());
    loop->stopObject(stream.source);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(stream.source.get()) + ": stop"));
    settle();
    char byte = 0;
    EXPECT_EQ(recv(stream.peer, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(sendQuietly(stream.peer, "x", MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EPIPE);
    close(duplicate);
}

}  // namespace
