#include "platform/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

class Options : public testing::Test {
protected:
    Options() { optind = 1; }
};

TEST_F(Options, StopAtTheFirstOperand) {
    std::vector<std::string> words = {"name", "-a", "operand", "-b"};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    EXPECT_EQ(posixGetopt(4, arguments.data(), "ab"), 'a');
    EXPECT_EQ(posixGetopt(4, arguments.data(), "ab"), -1);
    EXPECT_EQ(optind, 2);
    EXPECT_STREQ(arguments[2], "operand");
}

TEST_F(Options, UnknownOneAndMissingArgumentAreQuestionMarks) {
    std::vector<std::string> words = {"name", "-x", "-p"};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(posixGetopt(3, arguments.data(), "p:"), '?');
    EXPECT_EQ(posixGetopt(3, arguments.data(), "p:"), '?');
    EXPECT_EQ(posixGetopt(3, arguments.data(), "p:"), -1);
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
}

}  // namespace
