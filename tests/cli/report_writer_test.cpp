#include "cli/report_writer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/support/captured_run.h"

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

}  // namespace
