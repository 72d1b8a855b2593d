#include "cli/outcome.h"

#include <gtest/gtest.h>

#include "tests/support/captured_run.h"

namespace {

void expectLine(int status, const char* subject, const char* verb, const std::string& line) {
    const Outcome outcome = runInChild([&] { printStatusAndExit(status, subject, verb); });
    EXPECT_EQ(outcome.err, line);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, status);
}

TEST(PrintStatusAndExit, NotFound) {
    expectLine(2, "The server", nullptr, "The server has not been found.\n");
    expectLine(2, "The device", "plugged", "The device has not been found.\n");
}

TEST(PrintStatusAndExit, Already) {
    expectLine(37, "The server", "added", "The server has been already added.\n");
    expectLine(37, "The device", "unplugged", "The device has been already unplugged.\n");
}

TEST(PrintStatusAndExit, InternalError) {
    expectLine(5, "The server", "added", "Internal error.\n");
    expectLine(5, nullptr, nullptr, "Internal error.\n");
}

TEST(PrintStatusAndExit, OtherStatusesSayNothing) {
    for (const int status : {0, 1, 12, 22, 114})
        expectLine(status, "The server", "added", "");
}

}  // namespace
