// The program tee between all kinds of descriptors, as a shell puts it there.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/examples/byte_traffic.h"
#include "tests/examples/scratch_directory.h"
#include "tests/support/captured_run.h"
#include "tests/support/descriptors.h"

namespace {

std::string large() {
    return noise(16 * kMebibyte, 1);
}

class Tee : public testing::Test {
protected:
    // In the script $tee is the program; the working directory is the test's.
    [[nodiscard]] std::vector<std::string> shell(const std::string& script) const {
        return {"/bin/sh", "-c", "cd \"$1\"; tee=$0; " + script, TEE_PROGRAM, directory.path()};
    }
    [[nodiscard]] Outcome run(const std::string& script) const { return runProgram(shell(script)); }

    // What went in by the script is what came out of it.
    void expectCopied(const std::string& bytes, const std::string& script) const {
        directory.write("in", bytes);
        const Outcome outcome = run(script);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_TRUE(directory.content("out") == bytes);
    }

    void expectFailure(const std::string& script, const std::string& why) const {
        const Outcome outcome = run(script);
        EXPECT_EQ(outcome.status, 1) << script;
        EXPECT_EQ(outcome.err, "tee: " + why + "\n") << script;
    }

    const ScratchDirectory directory;
};

TEST_F(Tee, CopiesFromPipeToPipe) {
    expectCopied(large(), "cat in | \"$tee\" | cat >out");
}

TEST_F(Tee, CopiesFromPipeToFile) {
    expectCopied(large(), "cat in | \"$tee\" >out");
}

TEST_F(Tee, CopiesFromFileToFile) {
    expectCopied(large(), "\"$tee\" <in >out");
}

TEST_F(Tee, CopiesFromFileToPipe) {
    expectCopied(noise(2 * kMebibyte, 1), "\"$tee\" <in | cat >out");
}

TEST_F(Tee, CopiesNothing) {
    expectCopied("", "\"$tee\" <in >out");
    expectCopied("", "\"$tee\" </dev/null >out");
    expectCopied("", "cat in | \"$tee\" | cat >out");
}

TEST_F(Tee, CopiesToTheNullDevice) {
    directory.write("in", noise(kMebibyte, 1));
    EXPECT_EQ(run("cat in | \"$tee\" >/dev/null").status, 0);
}

TEST_F(Tee, CopiesWhatIsLeftOfAFile) {
    directory.write("in", "hello, world");
    EXPECT_EQ(run("{ dd bs=7 count=1 2>/dev/null >/dev/null; \"$tee\"; } <in").out, "world");
}

TEST_F(Tee, AppendsToAFile) {
    directory.write("out", "hello");
    EXPECT_EQ(run("printf ', world' | \"$tee\" >>out").status, 0);
    EXPECT_EQ(directory.content("out"), "hello, world");
}

// Between two FIFOs whose other ends are the test's.
class TeeBetweenFifos : public Tee {
protected:
    void SetUp() override {
        ASSERT_EQ(mkfifo(directory.path("in").c_str(), 0600), 0);
        ASSERT_EQ(mkfifo(directory.path("out").c_str(), 0600), 0);
    }
    void TearDown() override {
        if (toTee != -1) close(toTee);
        if (fromTee != -1) close(fromTee);
    }

    // Each waits for the program to open the other end.
    void openBoth() {
        toTee = open(directory.path("in").c_str(), O_WRONLY | O_CLOEXEC);
        fromTee = open(directory.path("out").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_NE(toTee, -1);
        ASSERT_NE(fromTee, -1);
    }
    void endInput() { close(std::exchange(toTee, -1)); }
    void endOutput() { close(std::exchange(fromTee, -1)); }

    int toTee = -1;
    int fromTee = -1;
};

TEST_F(TeeBetweenFifos, ReadsNoMoreThanASlowReaderAllows) {
    RunningProgram tee(shell("exec \"$tee\" <in >out"));
    openBoth();
    const std::string bytes = large();
    const size_t written = writeUntilStalled(toTee, bytes);
    EXPECT_LT(written, 4 * kMebibyte);
    endInput();
    EXPECT_TRUE(readToEnd(fromTee) == bytes.substr(0, written));
    EXPECT_EQ(tee.finish().status, 0);
}

TEST_F(TeeBetweenFifos, SlowReaderGetsTheLastByteAfterTheInputHasEnded) {
    RunningProgram tee(shell("exec \"$tee\" <in >out"));
    openBoth();
    const std::string bytes = noise(kMebibyte / 2, 1);
    ASSERT_EQ(write(toTee, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    endInput();
    EXPECT_TRUE(readToEnd(fromTee) == bytes);
    EXPECT_EQ(tee.finish().status, 0);
}

TEST_F(TeeBetweenFifos, ReaderThatGoesAwayIsToldWhileReading) {
    RunningProgram tee(shell("exec \"$tee\" <in >out"));
    openBoth();
    endOutput();
    ASSERT_EQ(write(toTee, "hello", 5), 5);
    const Outcome outcome = tee.finish();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "tee: standard output cannot be written\n");
}

TEST_F(TeeBetweenFifos, ReaderThatGoesAwayIsToldAfterTheInputHasEnded) {
    RunningProgram tee(shell("exec \"$tee\" <in >out"));
    openBoth();
    const std::string bytes = noise(kMebibyte / 2, 1);
    ASSERT_EQ(write(toTee, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    endInput();
    EXPECT_TRUE(tee.isRunning());
    endOutput();
    EXPECT_EQ(tee.finish().status, 1);
}

TEST_F(TeeBetweenFifos, NonBlockingDescriptorIsCopiedAndLeftAsItWas) {
    constexpr int kInherited = 7;
    const std::array<int, 2> ends = makePipe();
    ASSERT_TRUE(ends[0] != kInherited && ends[1] != kInherited);
    ASSERT_EQ(dup2(ends[0], kInherited), kInherited);
    ASSERT_EQ(fcntl(kInherited, F_SETFL, O_NONBLOCK), 0);
    RunningProgram tee(shell("exec \"$tee\" <&7 7<&-"));
    close(kInherited);
    ASSERT_EQ(write(ends[1], "hello", 5), 5);
    EXPECT_TRUE(tee.waitForOutput("hello"));
    EXPECT_EQ(fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
    close(ends[1]);
    EXPECT_EQ(tee.finish().status, 0);
    EXPECT_NE(fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
    close(ends[0]);
}

class TeeOnATerminal : public TeeBetweenFifos {
protected:
    void SetUp() override {
        keyboard = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (keyboard == -1 || grantpt(keyboard) != 0 || unlockpt(keyboard) != 0)
            GTEST_SKIP() << "there are no pseudo-terminals";
        std::array<char, 100> buffer{};
        ASSERT_EQ(ptsname_r(keyboard, buffer.data(), buffer.size()), 0);
        terminal = buffer.data();
        // Held open, or what is typed before the program has opened it would be lost.
        held = open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_NE(held, -1);
        TeeBetweenFifos::SetUp();
    }
    void TearDown() override {
        TeeBetweenFifos::TearDown();
        if (keyboard != -1) close(keyboard);
        if (held != -1) close(held);
    }
    void type(std::string_view keys) const {
        ASSERT_EQ(::write(keyboard, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // Whether what was typed, the end-of-file character included, waits to be read.
    [[nodiscard]] bool isReadable() const {
        pollfd waiting{.fd = held, .events = POLLIN, .revents = 0};
        return poll(&waiting, 1, 0) == 1;
    }
    [[nodiscard]] int unreadBytes() const {
        int count = 0;
        ioctl(held, FIONREAD, &count);
        return count;
    }

    int keyboard = -1;
    int held = -1;
    std::string terminal;
};

TEST_F(TeeOnATerminal, EndOfFileCharacterEndsTheInputAndNobodyElses) {
    RunningProgram tee(shell("exec \"$tee\" <" + terminal));
    type("hello\n");
    EXPECT_TRUE(tee.waitForOutput("hello\n"));
    type("\x04");
    const Outcome outcome = tee.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "hello\n");
    EXPECT_FALSE(isReadable());
}

TEST_F(TeeOnATerminal, EndOfFileCharacterNeedNotBeTypedAgainForASlowReader) {
    const std::string path = directory.path("out");
    fromTee = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const int prefill = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const std::string bytes = noise(2 * kMebibyte, 1);  // more than a pipe holds
    const size_t filled = writeUntilStalled(prefill, bytes);
    type("hello\n\x04");
    while (!isReadable())
        std::this_thread::yield();
    RunningProgram tee(shell("exec \"$tee\" <" + terminal + " >out"));
    while (unreadBytes() > 0)
        std::this_thread::yield();
    close(prefill);
    fcntl(fromTee, F_SETFL, 0);
    EXPECT_TRUE(readToEnd(fromTee) == bytes.substr(0, filled) + "hello\n");
    EXPECT_EQ(tee.finish().status, 0);
}

TEST_F(TeeOnATerminal, LinesThatWaitComeOneByOneWithNothingBetweenThem) {
    type("one\ntwo\n\x04");
    RunningProgram tee(shell("exec \"$tee\" <" + terminal));
    EXPECT_EQ(tee.finish().out, "one\ntwo\n");
}

TEST_F(TeeOnATerminal, ShowsWhatIsCopied) {
    RunningProgram tee(shell("printf 'one\\ntwo\\n' | \"$tee\" >" + terminal));
    std::string shown;
    std::array<char, 64> piece{};
    while (shown.size() < 10) {
        const ssize_t size = read(keyboard, piece.data(), piece.size());
        ASSERT_GT(size, 0);
        shown.append(piece.data(), static_cast<size_t>(size));
    }
    EXPECT_EQ(shown, "one\r\ntwo\r\n");
    EXPECT_EQ(tee.finish().status, 0);
}

TEST_F(Tee, DescriptorsThatAreNoStreamsAreNamed) {
    directory.write("file", "hello");
    expectFailure("\"$tee\" <&-", "standard input is closed");
    expectFailure("\"$tee\" >&-", "standard output is closed");
    expectFailure("\"$tee\" <.", "standard input is a directory");
    expectFailure("\"$tee\" 0>>file", "standard input is not open for reading");
    expectFailure("\"$tee\" 1<file", "standard output is not open for writing");
    expectFailure("\"$tee\" <file >>file", "standard input is standard output, too");
    EXPECT_EQ(directory.content("file"), "hello");
}

TEST_F(Tee, OutputThatTakesNothingIsNamed) {
    expectFailure("echo hello | \"$tee\" >/dev/full", "standard output cannot be written");
}

}  // namespace
