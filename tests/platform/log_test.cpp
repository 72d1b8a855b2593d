#include "platform/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

class Log : public testing::Test {
protected:
    Log() {
        logSetSink([this](LogLevel level, const std::string& subsystem, const std::string& category,
                          const char* message) {
            lines.push_back((level == LogLevel::Error ? "error " : "debug ") + subsystem + "/" +
                            category + " " + message);
        });
    }
    ~Log() override {
        logSetSink(nullptr);
        logSetLevel(LogLevel::Error);
    }

    std::vector<std::string> lines;
    std::shared_ptr<const LogHandle> handle = logCreate("org.example", "test");
};

TEST_F(Log, ErrorsAreEnabledAndDebugLinesAreNot) {
    EXPECT_TRUE(handle->isEnabled(LogLevel::Error));
    EXPECT_FALSE(handle->isEnabled(LogLevel::Debug));
    handle->debug("not wanted");
    handle->error("number %d", 7);
    EXPECT_EQ(lines, std::vector<std::string>{"error org.example/test number 7"});
}

TEST_F(Log, DebugLinesComeOnceTheyAreEnabled) {
    logSetLevel(LogLevel::Debug);
    handle->debug("<%x>: %s", 255U, "stop");
    EXPECT_EQ(lines, std::vector<std::string>{"debug org.example/test <ff>: stop"});
}

TEST_F(Log, LongLinesAreCut) {
    handle->error("%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0], "error org.example/test " + std::string(1023, 'x'));
}

TEST_F(Log, LeavesErrnoAlone) {
    logSetSink([](LogLevel, const std::string&, const std::string&, const char*) { errno = EIO; });
    errno = ENOENT;
    handle->error("line");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Log, WithoutASinkGoesToTheSystem) {
    logSetSink(nullptr);
    EXPECT_TRUE(handle->isEnabled(LogLevel::Error));
    EXPECT_FALSE(handle->isEnabled(LogLevel::Debug));
    logSetLevel(LogLevel::Debug);
    EXPECT_TRUE(handle->isEnabled(LogLevel::Debug));
    handle->debug("a line for the system's log");
    EXPECT_TRUE(lines.empty());
}

}  // namespace
