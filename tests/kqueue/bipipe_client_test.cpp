#include "kqueue/HXKQueueBipipeClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "tests/kqueue/loop_fixture.h"

namespace {

// Sixteen megabytes are more than any pipe or socket holds.
constexpr size_t kMuch = 16 << 20;

std::string numberedBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 2'654'435'761U) >> 13);
    return bytes;
}

std::string readToEnd(int fd) {
    std::string all;
    std::string piece(65'536, '\0');
    for (;;) {
        const ssize_t size = read(fd, piece.data(), piece.size());
        if (size <= 0) return all;
        all.append(piece, 0, static_cast<size_t>(size));
    }
}

void writeAll(int fd, const std::string& bytes) {
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t size = write(fd, bytes.data() + written, bytes.size() - written);
        ASSERT_GT(size, 0);
        written += static_cast<size_t>(size);
    }
}

// Two pipes: what the test writes to `feed` the source reads, what the source writes comes out of
// `drain`.
class Bipipe : public LoopTest {
protected:
    Bipipe() {
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        EXPECT_EQ(pipe(in.data()), 0);
        EXPECT_EQ(pipe(out.data()), 0);
        feed = in[1];
        drain = out[0];
        ends = {in[0], out[1]};
        bipipe = loop->createBipipeClient(ends.data(), true);
    }
    ~Bipipe() override {
        stopLoop();
        hangUp(feed);
        hangUp(drain);
    }

    static void hangUp(int& fd) {
        if (fd != -1) close(fd);
        fd = -1;
    }

    // Sends back what it reads.
    HXKQueueEventBlock echo() {
        return events.block([this](const RecordedEvent& event, auto*) {
            if (event.code == HXKQueueEventData)
                loop->write(event.source, event.bytes.data(), event.bytes.size());
            return true;
        });
    }

    EventRecorder events;
    int feed = -1;
    int drain = -1;
    std::array<int, 2> ends{};
    std::shared_ptr<HXKQueueBipipeClient> bipipe;
};

TEST_F(Bipipe, LogsItsCreationAndItsStop) {
    EXPECT_TRUE(log.has("debug " + tagOf(bipipe.get()) + ": bipipe(" + std::to_string(ends[0]) +
                        "," + std::to_string(ends[1]) + ") created"));
    loop->stopObject(bipipe);
    EXPECT_TRUE(log.waitFor("debug " + tagOf(bipipe.get()) + ": stop"));
}

TEST_F(Bipipe, SaysConnectedInsideStartObjectOnTheCallersThreadThoughNothingWillEverBeRead) {
    hangUp(feed);
    hangUp(drain);
    loop->startObject(bipipe, events.block());
    const RecordedEvent event = events.all().at(0);
    EXPECT_EQ(event.code, HXKQueueEventConnected);
    EXPECT_EQ(event.thread, std::this_thread::get_id());
    EXPECT_FALSE(event.hadBytes);
    EXPECT_EQ(event.size, 0U);
    EXPECT_FALSE(event.hadDropSize);
}

TEST_F(Bipipe, DataComesOnTheIOThreadWithTheDropCountPresetToAllOfIt) {
    loop->startObject(bipipe, events.block());
    writeAll(feed, "hello");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const RecordedEvent event = events.last();
    EXPECT_EQ(event.source, bipipe);
    EXPECT_EQ(event.bytes, "hello");
    EXPECT_TRUE(event.hadDropSize);
    EXPECT_EQ(event.presetDropSize, 5U);
    EXPECT_NE(event.thread, std::this_thread::get_id());
}

TEST_F(Bipipe, BytesTheBlockKeepsComeAgainBeforeTheNewOnes) {
    loop->startObject(bipipe, events.dropping(0));
    writeAll(feed, "ab");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    writeAll(feed, "cd");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "abcd");
}

TEST_F(Bipipe, EndOfTheInputIsTerminatedAgainAndAgainWithWhatIsLeft) {
    loop->startObject(bipipe, events.block([](const RecordedEvent& event, uint64_t* drop) {
        if (event.code == HXKQueueEventData) *drop = 1;
        return true;
    }));
    writeAll(feed, "abc");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    hangUp(feed);
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated, 3));
    std::vector<std::string> told;
    for (const RecordedEvent& event : events.all())
        if (event.code == HXKQueueEventTerminated && told.size() < 2) told.push_back(event.bytes);
    EXPECT_EQ(told, (std::vector<std::string>{"bc", ""}));
}

TEST_F(Bipipe, ReaderThatWentAwayIsTerminatedAndKillsNobody) {
    loop->startObject(bipipe, events.block());
    hangUp(drain);
    loop->write(bipipe, "x", 1);
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated, 2));
    EXPECT_EQ(bipipe->pendingBytes(), 1U);
}

TEST_F(Bipipe, CarriesMuchBothWaysToTheLastByte) {
    loop->startObject(bipipe, echo());
    const std::string sent = numberedBytes(kMuch);
    std::thread feeder([&] { writeAll(feed, sent); });
    std::string received(sent.size(), '\0');
    size_t size = 0;
    while (size < received.size()) {
        const ssize_t count = read(drain, received.data() + size, received.size() - size);
        ASSERT_GT(count, 0);
        size += static_cast<size_t>(count);
    }
    feeder.join();
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

TEST_F(Bipipe, ReaderThatNeverReadsHoldsUpNobody) {
    loop->startObject(bipipe, events.block());
    const std::string much = numberedBytes(kMuch);
    loop->write(bipipe, much.data(), much.size());
    for (int i = 0; i < 20; ++i)
        settle();
    EXPECT_GT(bipipe->pendingBytes(), 0U);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

// Eight threads meet the I/O thread at the moment when it empties the queue. Each arming and each
// removal fits the queue, so no write record ever finds that empty.
TEST_F(Bipipe, WritesFromManyThreadsAllArriveAndEndNothing) {
    loop->startObject(bipipe, events.block());
    constexpr size_t kThreads = 8;
    constexpr size_t kWrites = 5000;
    std::vector<std::thread> writers;
    for (size_t t = 0; t < kThreads; ++t)
        writers.emplace_back([this, t] {
            const char byte = static_cast<char>('a' + t);
            for (size_t i = 0; i < kWrites; ++i)
                loop->write(bipipe, &byte, 1);
        });
    std::array<size_t, kThreads> counts{};
    std::array<char, 4096> piece{};
    for (size_t received = 0; received < kThreads * kWrites;) {
        const ssize_t size = read(drain, piece.data(), piece.size());
        ASSERT_GT(size, 0);
        for (ssize_t i = 0; i < size; ++i)
            ++counts.at(static_cast<size_t>(piece[static_cast<size_t>(i)] - 'a'));
        received += static_cast<size_t>(size);
    }
    for (std::thread& writer : writers)
        writer.join();
    for (const size_t count : counts)
        EXPECT_EQ(count, kWrites);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

TEST_F(Bipipe, StopClosesBothDescriptorsThatItOwns) {
    loop->startObject(bipipe, events.block());
    loop->stopObject(bipipe);
    EXPECT_EQ(readToEnd(drain), "");  // ends because the writing end is closed
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1);
}

TEST_F(Bipipe, StopLeavesBorrowedDescriptorsOpen) {
    std::array<int, 2> borrowed{};
    ASSERT_EQ(pipe(borrowed.data()), 0);
    const auto source = loop->createBipipeClient(borrowed.data(), false);
    loop->startObject(source, events.block());
    loop->stopObject(source);
    settle();
    writeAll(borrowed[1], "x");
    char byte = 0;
    EXPECT_EQ(read(borrowed[0], &byte, 1), 1);
    close(borrowed[0]);
    close(borrowed[1]);
}

TEST_F(Bipipe, StopReleasesTheBlock) {
    const auto held = std::make_shared<int>(1);
    loop->startObject(bipipe, [held](auto&&...) { return true; });
    loop->stopObject(bipipe);
    settle();
    settle();
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(Bipipe, PausedOneLeavesItsBytesInTheKernelUntilItResumes) {
    loop->startObject(bipipe, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) bipipe->pauseReading();
        return true;
    }));
    writeAll(feed, "a");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    writeAll(feed, "b");
    hangUp(feed);
    settle();
    settle();
    EXPECT_EQ(events.codes().size(), 2U);
    bipipe->resumeReading();
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 2));
    EXPECT_EQ(events.last().bytes, "b");
    settle();
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
    bipipe->resumeReading();
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
}

TEST_F(Bipipe, ResumingAStoppedOneDoesNothing) {
    loop->startObject(bipipe, events.block());
    loop->stopObject(bipipe);
    bipipe->resumeReading();
    settle();
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_TRUE(log.errors().empty());
}

// Every kind of descriptor

class BipipeOver : public Bipipe {
protected:
    std::shared_ptr<HXKQueueBipipeClient> over(int in, int out) {
        const std::array<int, 2> pair = {in, out};
        auto source = loop->createBipipeClient(pair.data(), true);
        loop->startObject(source, echo());
        return source;
    }

    TemporaryDirectory directory;
};

TEST_F(BipipeOver, OneSocketAsBothEndsEchoes) {
    std::array<int, 2> pair{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
    const auto source = over(pair[0], dup(pair[0]));
    writeAll(pair[1], "hello");
    std::array<char, 5> answer{};
    ASSERT_EQ(recv(pair[1], answer.data(), 5, MSG_WAITALL), 5);
    EXPECT_EQ(std::string(answer.data(), 5), "hello");
    close(pair[1]);
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
}

TEST_F(BipipeOver, SocketIsClosedWithoutAShutdown) {
    std::array<int, 2> pair{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
    const int duplicate = dup(pair[0]);
    const auto source = over(pair[0], dup(pair[0]));
    loop->stopObject(source);
    settle();
    writeAll(pair[1], "x");
    writeAll(duplicate, "y");
    char byte = 0;
    EXPECT_EQ(read(duplicate, &byte, 1), 1);
    EXPECT_EQ(read(pair[1], &byte, 1), 1);
    close(duplicate);
    close(pair[1]);
}

TEST_F(BipipeOver, DirectoryIsTerminated) {
    const auto source = over(open("/", O_RDONLY), open("/dev/null", O_WRONLY));
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
    EXPECT_EQ(events.count(HXKQueueEventData), 0U);
}

TEST_F(BipipeOver, FifosEcho) {
    const std::string there = directory.file("there");
    const std::string back = directory.file("back");
    ASSERT_EQ(mkfifo(there.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(back.c_str(), 0600), 0);
    const int keepsThere = open(there.c_str(), O_RDWR);
    const int keepsBack = open(back.c_str(), O_RDWR);
    const auto source = over(open(there.c_str(), O_RDONLY), open(back.c_str(), O_WRONLY));
    writeAll(keepsThere, "hello");
    std::array<char, 5> answer{};
    ASSERT_EQ(read(keepsBack, answer.data(), 5), 5);
    EXPECT_EQ(std::string(answer.data(), 5), "hello");
    close(keepsThere);
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
    close(keepsBack);
}

TEST_F(BipipeOver, RegularFileIsReadToItsEndAndThenSilentUntilItGrows) {
    const std::string path = directory.file("input");
    const std::string content = numberedBytes(1'000'000);
    const int writer = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    writeAll(writer, content);
    const auto source = over(open(path.c_str(), O_RDONLY), open("/dev/null", O_WRONLY));
    ASSERT_TRUE(events.waitForBytes(content.size()));
    EXPECT_TRUE(events.allBytes() == content);
    for (int i = 0; i < 5; ++i)
        settle();
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
    writeAll(writer, "more");
    ASSERT_TRUE(events.waitForBytes(content.size() + 4));
    EXPECT_EQ(events.last().bytes, "more");
    close(writer);
}

TEST_F(BipipeOver, RegularFileTakesEverythingAndAppendsWhereItIsToldTo) {
    const std::string path = directory.file("output");
    const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    writeAll(file, "before ");
    const auto source = over(dup(ends[0]), file);
    const std::string content = numberedBytes(kMuch);
    loop->write(source, content.data(), content.size());
    while (source->pendingBytes() > 0)
        settle();
    const int reader = open(path.c_str(), O_RDONLY);
    EXPECT_TRUE(readToEnd(reader) == "before " + content);
    close(reader);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

TEST_F(BipipeOver, FullDeviceIsTerminated) {
    const int full = open("/dev/full", O_WRONLY);
    if (full == -1) GTEST_SKIP() << "there is no /dev/full";
    const std::array<int, 2> pair = {ends[0], full};
    const auto source = loop->createBipipeClient(pair.data(), false);
    loop->startObject(source, events.block());
    loop->write(source, "x", 1);
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
    EXPECT_EQ(source->pendingBytes(), 1U);
    stopLoop();
    close(full);
}

TEST_F(BipipeOver, NullDeviceIsAtItsEndAtOnceAndTakesEverything) {
    const auto source = over(open("/dev/null", O_RDONLY), open("/dev/null", O_WRONLY));
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated));
    loop->write(source, "x", 1);
    while (source->pendingBytes() > 0)
        std::this_thread::yield();
}

class BipipeOverATerminal : public BipipeOver {
protected:
    void SetUp() override {
        keyboard = posix_openpt(O_RDWR | O_NOCTTY);
        if (keyboard == -1 || grantpt(keyboard) != 0 || unlockpt(keyboard) != 0)
            GTEST_SKIP() << "there are no pseudo-terminals";
        std::array<char, 100> name{};
        ASSERT_EQ(ptsname_r(keyboard, name.data(), name.size()), 0);
        terminal = open(name.data(), O_RDWR | O_NOCTTY);
        struct termios settings;
        ASSERT_EQ(tcgetattr(terminal, &settings), 0);
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        settings.c_oflag = 0;
        ASSERT_EQ(tcsetattr(terminal, TCSANOW, &settings), 0);
    }
    void TearDown() override { hangUp(keyboard); }

    int keyboard = -1;
    int terminal = -1;
};

TEST_F(BipipeOverATerminal, LinesComeWholeAndGoBack) {
    const auto source = over(terminal, dup(terminal));
    writeAll(keyboard, "hel");
    settle();
    EXPECT_EQ(events.count(HXKQueueEventData), 0U);
    writeAll(keyboard, "lo\n");
    std::string answer;
    std::array<char, 16> piece{};
    while (answer.size() < 6) {
        const ssize_t size = read(keyboard, piece.data(), piece.size());
        ASSERT_GT(size, 0);
        answer.append(piece.data(), static_cast<size_t>(size));
    }
    EXPECT_EQ(answer, "hello\n");
}

TEST_F(BipipeOverATerminal, EndOfFileCharacterIsTerminatedOnceAndTheTerminalGoesOn) {
    const auto source = over(terminal, dup(terminal));
    writeAll(keyboard, "\x04");
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated));
    writeAll(keyboard, "x\n");
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    EXPECT_EQ(events.last().bytes, "x\n");
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 1U);
}

TEST_F(BipipeOverATerminal, HangUpIsTerminated) {
    const auto source = over(terminal, dup(terminal));
    hangUp(keyboard);
    EXPECT_TRUE(events.waitFor(HXKQueueEventTerminated, 2));
}

}  // namespace
