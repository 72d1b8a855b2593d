// The examples of the manual pages, run as they stand there.

#include <gtest/gtest.h>

#include <fstream>

#include "tests/e2e/daemon_on_control_path.h"
#include "tests/man/page.h"

namespace {

constexpr const char* kUtilityPage = SOURCE_DIR "/man/hxusbvctl.8";
constexpr const char* kDaemonPage = SOURCE_DIR "/man/hxusbvd-sim.8";

std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + '\n';
    return text;
}

// A display without what its commands have printed.
Lines commandsOf(const Lines& display) {
    Lines commands;
    for (const std::string& line : display)
        if (line.starts_with("$ ")) commands.push_back(line.substr(2));
    return commands;
}

class ManualExamples : public WithSimulatedDaemon {
protected:
    void SetUp() override {
        WithSimulatedDaemon::SetUp();
        if (IsSkipped()) return;
        std::filesystem::create_symlink(UTILITY_PROGRAM, directory / "hxusbvctl");
        const std::vector<Lines> examples = Page(kDaemonPage).displays("EXAMPLES");
        ASSERT_EQ(examples.size(), 3U);
        std::ofstream(directory / "inventory.json") << joined(examples[0]);
    }

    // The display again, with what the commands print now.
    [[nodiscard]] std::string shownBy(const Lines& commands) const {
        std::string shown;
        for (const std::string& command : commands) {
            const Outcome outcome = runProgram(
                {"/bin/sh", "-c", "PATH=$1:$PATH; { " + command + "; } 2>&1", "sh", directory});
            EXPECT_EQ(outcome.err, "");
            shown += "$ " + command + '\n' + outcome.out;
        }
        return shown;
    }
};

TEST_F(ManualExamples, UtilitysPrintWhatItsPageSays) {
    const RunningProgram daemon = start();
    size_t commands = 0;
    for (const Lines& display : Page(kUtilityPage).displays("EXAMPLES")) {
        EXPECT_EQ(shownBy(commandsOf(display)), joined(display));
        commands += commandsOf(display).size();
    }
    EXPECT_EQ(commands, 17U);
}

// Its columns are explained by lines of their own.
TEST_F(ManualExamples, LinesThatAreExplainedAreOnesOfTheLists) {
    const RunningProgram daemon = start();
    const std::string lists = '\n' + shownBy({"hxusbvctl srv"}) + shownBy({"hxusbvctl dev"});
    Lines explained = Page(kUtilityPage).arguments(".Dl");
    std::erase_if(explained,
                  [](const std::string& line) { return line.starts_with("hxusbvctl "); });
    EXPECT_EQ(explained.size(), 2U);
    for (const Lines& display : Page(kUtilityPage).displays("DESCRIPTION"))
        explained.insert(explained.end(), display.begin(), display.end());
    EXPECT_EQ(explained.size(), 3U);
    for (const std::string& line : explained)
        EXPECT_NE(lists.find('\n' + line + '\n'), std::string::npos) << line;
}

TEST_F(ManualExamples, SimulatedDaemonsPrintWhatItsPageSays) {
    const Lines display = Page(kDaemonPage).displays("EXAMPLES").at(2);
    const Lines commands = commandsOf(display);
    ASSERT_EQ(commands.size(), 2U);
    ASSERT_EQ(commands[0], "hxusbvd-sim --misbehave close-before &");
    const RunningProgram daemon = start({"--misbehave", "close-before"});
    EXPECT_EQ("$ " + commands[0] + "\nhxusbvd-sim: listening on /var/run/hxusbvctl.sock\n" +
                  shownBy({commands[1]}),
              joined(display));
}

}  // namespace
