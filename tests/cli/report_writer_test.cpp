#include "cli/report_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/captured_run.h"
#include "tests/support/descriptors.h"

namespace {

using namespace std::string_literals;

std::string written(const std::function<void(ReportWriter&)>& write) {
    return runInChild([&] {
               ReportWriter report(stdout);
               write(report);
               report.flush();
           })
        .out;
}

std::string readToEnd(int fd) {
    std::string bytes;
    std::array<char, 65536> piece;
    for (ssize_t size = 0; (size = read(fd, piece.data(), piece.size())) > 0;)
        bytes.append(piece.data(), static_cast<size_t>(size));
    return bytes;
}

TEST(ReportWriter, NumbersAreAsPrintfWritesThem) {
    for (const uint32_t number : {0U, 1U, 9U, 10U, 12345U, 4294967295U})
        EXPECT_EQ(written([=](ReportWriter& report) { report.decimal(number); }),
                  std::to_string(number));
}

TEST(ReportWriter, HexadecimalHasFourDigits) {
    EXPECT_EQ(written([](ReportWriter& report) {
                  report.hex(0).text(" ").hex(0x46d).text(" ").hex(0xABCD).text(" ").hex(0xffff);
              }),
              "0000 046d abcd ffff");
}

TEST(ReportWriter, TextEndsAtItsFirstNul) {
    EXPECT_EQ(
        written([](ReportWriter& report) { report.text("a\0b"s).text("").text("\0"s).text("c"); }),
        "ac");
}

TEST(ReportWriter, LiteralsAreWrittenWithoutTheirEnd) {
    EXPECT_EQ(written([](ReportWriter& report) { report.literal("ab").literal("").literal("c"); }),
              "abc");
}

TEST(ReportWriter, EverySizeAroundTheBufferIsWrittenOnceAndInOrder) {
    for (const size_t size : {65534U, 65535U, 65536U, 65537U, 160000U}) {
        const std::string text(size, 'x');
        EXPECT_EQ(written([&](ReportWriter& report) {
                      report.text("a").text(text).decimal(7).text(text).text("z");
                  }),
                  "a" + text + "7" + text + "z");
    }
}

TEST(ReportWriter, ManySmallPiecesKeepTheirOrder) {
    std::string expected;
    for (uint32_t i = 0; i < 20000; ++i)
        expected += std::to_string(i) + "\n";
    EXPECT_EQ(written([](ReportWriter& report) {
                  for (uint32_t i = 0; i < 20000; ++i)
                      report.decimal(i).text("\n");
              }),
              expected);
}

TEST(ReportWriter, WhatIsLeftIsWrittenAtTheEndOfTheWriter) {
    EXPECT_EQ(runInChild([] {
                  { ReportWriter(stdout).text("line\n"); }
                  std::fputs("after", stdout);
              }).out,
              "line\nafter");
}

// Nothing reads from the pipe before it is full. The writer's end is the same file as the child's
// standard output, which may be non-blocking because another program wants it so.
TEST(ReportWriter, NonBlockingPipeThatIsFullIsWaitedFor) {
    const std::string text(300'000, 'x');
    const Outcome outcome = runInChild([&] {
        const auto [readEnd, writeEnd] = makePipe();
        fcntl(writeEnd, F_SETFL, O_NONBLOCK);
        const int original = dup(STDOUT_FILENO);
        dup2(writeEnd, STDOUT_FILENO);
        std::string read;
        std::thread reader([&, from = readEnd, full = writeEnd] {
            pollfd room{.fd = full, .events = POLLOUT, .revents = 0};
            while (poll(&room, 1, 0) == 1)
                sched_yield();
            close(full);
            read = readToEnd(from);
        });
        {
            ReportWriter report(stdout);
            report.text(text).text(text).literal("end");
        }
        dup2(original, STDOUT_FILENO);
        reader.join();
        std::fputs(read.c_str(), stdout);
    });
    EXPECT_TRUE(outcome.out == text + text + "end") << outcome.out.size();
}

}  // namespace
