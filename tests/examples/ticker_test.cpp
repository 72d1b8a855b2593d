// The program ticker.

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/captured_run.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(Ticker, TicksAsOftenAsToldAndNeverEarly) {
    const Clock::time_point before = Clock::now();
    const Outcome outcome = runProgram({TICKER_PROGRAM, "20", "4"});
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    std::istringstream lines(outcome.out);
    std::string what;
    std::string after;
    std::string unit;
    int64_t elapsedMs = 0;
    int count = 0;
    while (lines >> what >> after >> elapsedMs >> unit) {
        ++count;
        EXPECT_EQ(what, count <= 4 ? "tick" : "end");
        EXPECT_GE(elapsedMs, 20 * count);
    }
    EXPECT_EQ(count, 5);
}

TEST(Ticker, TicksTenTimesUnlessToldOtherwise) {
    const Outcome outcome = runProgram({TICKER_PROGRAM, "1"});
    size_t ticks = 0;
    for (size_t at = 0; (at = outcome.out.find("tick after ", at)) != std::string::npos; ++at)
        ++ticks;
    EXPECT_EQ(ticks, 10U);
}

TEST(Ticker, WrongCommandLineIsStatus2AndNothingElse) {
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"0"},
                                                         {"-5"},
                                                         {"x"},
                                                         {"5x"},
                                                         {"5", ""},
                                                         {"5", "0"},
                                                         {"5", "2147483648"},
                                                         {"5", "1", "1"}};
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), TICKER_PROGRAM);
        const Outcome outcome = runProgram(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Usage: ticker PERIOD_MS [COUNT], each from 1 to 2147483647\n");
    }
}

TEST(Ticker, EndsWhenNobodyCanReadIt) {
    const Outcome outcome =
        runProgram({"/bin/sh", "-c", "\"$0\" 1 2147483647 >/dev/full", TICKER_PROGRAM});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "ticker: standard output has failed\n");
}

}  // namespace
