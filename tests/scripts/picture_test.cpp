// scripts/picture and the picture that README.md shows.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/scripts/script_fixture.h"
#include "tests/support/captured_run.h"

namespace {

constexpr const char* kPicture = SOURCE_DIR "/docs/session.svg";

std::string contentOf(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

using Picture = ScriptTest;

TEST_F(Picture, IsDrawnAnewToTheSameBytes) {
    const Outcome outcome = runProgram(script("picture", {"--check"}));
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    expectNothingIsLeft();
}

// Whatever the terminal and the language are.
TEST_F(Picture, IsWrittenWhereItIsAskedFor) {
    setenv("TERM", "dumb", 1);
    setenv("COLUMNS", "20", 1);
    setenv("LC_ALL", "C", 1);
    const Outcome outcome = runProgram(script("picture", {directory / "picture.svg"}));
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(contentOf(directory / "picture.svg"), contentOf(kPicture));
}

TEST_F(Picture, ThatIsAnotherIsToldSo) {
    const std::string other = directory / "picture.svg";
    std::string content = contentOf(kPicture);
    const size_t at = content.find(">37<");
    ASSERT_NE(at, std::string::npos);
    std::ofstream(other) << content.replace(at, 4, ">38<");
    const Outcome outcome = runProgram(script("picture", {"--check", other}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find(">38<"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.err,
              "picture: " + other + " is not what is drawn; to draw it: scripts/picture\n");
    EXPECT_EQ(contentOf(other), content);
}

}  // namespace
