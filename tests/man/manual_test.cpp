// The manual pages against the programs and headers that they are about.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/man/page.h"
#include "tests/support/captured_run.h"
#include "tests/support/unix_listener.h"

namespace {

namespace fs = std::filesystem;

const std::string kPages = SOURCE_DIR "/man/";
const std::string kReadme = SOURCE_DIR "/README.md";

std::string outputOf(const std::vector<std::string>& words) {
    const Outcome outcome = runProgram(words);
    EXPECT_EQ(outcome.status, 0);
    return outcome.out;
}

bool contains(const Lines& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

Lines withoutEmptyOnes(Lines lines) {
    std::erase(lines, "");
    return lines;
}

void leaveOut() {
    GTEST_SKIP() << "left out: there is no mandoc on this machine";
}

class Manual : public testing::Test {
protected:
    // What the test is about, as mandoc shows it.
    static Lines shown(const std::string& page) {
        Lines lines = Page(kPages + page).shown();
        if (lines.empty()) leaveOut();
        return lines;
    }
};

// The utility's usage in the page's words: the commands, as "srv add [-p TCPport] host".
Lines commandsOfUsage(const Lines& usage) {
    Lines commands;
    for (const std::string& line : usage) {
        const size_t begin = line.find("hxusbvctl ");
        if (begin == std::string::npos) continue;
        std::string command = line.substr(begin, line.find('\t', begin) - begin);
        command = replaced(replaced(command, "<", ""), ">", "");
        commands.push_back(command == "hxusbvctl -h" ? "hxusbvctl -h | --help" : command);
    }
    return commands;
}

// Whether the word, or words, are a tag in a list.
bool isExplained(const Lines& page, const std::string& word) {
    return std::any_of(page.begin(), page.end(), [&](const std::string& line) {
        return line == word || line.starts_with(word + "  ");
    });
}

TEST_F(Manual, CommandsAreThoseOfTheUsage) {
    const Lines page = shown("hxusbvctl.8");
    if (IsSkipped()) return;
    const Lines commands = commandsOfUsage(linesOf(outputOf({UTILITY_PROGRAM, "-h"})));
    EXPECT_EQ(commands.size(), 11U);
    Lines synopsis = withoutEmptyOnes(sectionOf(page, "SYNOPSIS"));
    for (std::string& line : synopsis)
        line = replaced(line, "-n | -N | -p", "-n|-N|-p");
    EXPECT_EQ(synopsis, commands);
}

TEST_F(Manual, EveryCommandOptionAndOperandOfTheUsageIsExplained) {
    Lines page = shown("hxusbvctl.8");
    if (IsSkipped()) return;
    page = sectionOf(page, "DESCRIPTION");
    for (std::string& line : page)
        line = replaced(line, "-n | -N | -p", "-n|-N|-p");
    const Lines usage = linesOf(outputOf({UTILITY_PROGRAM, "-h"}));
    for (const std::string& command : commandsOfUsage(usage))
        for (const std::string& form : linesOf(replaced(command.substr(10), " | ", "\n")))
            EXPECT_TRUE(isExplained(page, form)) << form;
    int others = 0;
    for (const std::string& line : usage) {
        std::string word;
        if (line.starts_with("\t ")) word = replaced(replaced(trimmed(line), "<", ""), ">", "");
        if (line.starts_with("\t\t-")) word = line.substr(2, 2);
        if (word.empty()) continue;
        ++others;
        EXPECT_TRUE(isExplained(page, word)) << word;
    }
    EXPECT_EQ(others, 8);
}

TEST_F(Manual, EveryMessageIsExplained) {
    const Lines explained = Page(kPages + "hxusbvctl.8").arguments(".It");
    int messages = 0;
    for (const char* folder : {SOURCE_DIR "/cli", SOURCE_DIR "/ipc"})
        for (const fs::directory_entry& file : fs::directory_iterator(folder)) {
            if (file.path().extension() != ".cpp") continue;
            for (const std::string& literal :
                 allMatches(textOf(file.path()), R"re("([A-Z]?[a-z]+:? [^"\]*))re")) {
                if (literal == "The server" || literal == "The device") continue;
                ++messages;
                EXPECT_TRUE(contains(explained, literal)) << literal;
            }
        }
    EXPECT_GE(messages, 20);
    for (const char* composed :
         {"The server has not been found.", "The device has not been found.",
          "The server has been already added.", "The device has been already plugged.",
          "The device has been already unplugged."})
        EXPECT_TRUE(contains(explained, composed)) << composed;
}

TEST_F(Manual, EveryExitStatusIsExplained) {
    const std::string page = textOf(kPages + "hxusbvctl.8");
    const size_t begin = page.find(".Sh EXIT STATUS");
    const Lines explained =
        allMatches(page.substr(begin, page.find("\n.Sh", begin) - begin), "\\.It ([0-9]+)");
    EXPECT_EQ(explained,
              allMatches(textOf(SOURCE_DIR "/cli/exit_status.h"), "kExit[A-Za-z]+ = ([0-9]+),"));
}

TEST_F(Manual, SimulatedDaemonsUsageIsThePages) {
    const Lines page = shown("hxusbvd-sim.8");
    if (IsSkipped()) return;
    const std::string usage = outputOf({SIM_PROGRAM, "--help"});
    std::string synopsis = usage.substr(0, usage.find("\nSimulates"));
    synopsis = replaced(synopsis.substr(7), "\n" + std::string(19, ' '), " ");
    const Lines onPage = withoutEmptyOnes(sectionOf(page, "SYNOPSIS"));
    EXPECT_EQ(onPage, (Lines{synopsis, "hxusbvd-sim --help"}));
    for (const std::string& option : allMatches(usage, "\n  (--[a-z]+)"))
        EXPECT_TRUE(std::any_of(page.begin(), page.end(), [&](const std::string& line) {
            return line == option || line.starts_with(option + ' ') ||
                   line.starts_with(option + '[');
        })) << option;
    EXPECT_EQ(allMatches(textOf(kPages + "hxusbvd-sim.8"), "\n\\.It Cm ([a-z-]+)"),
              allMatches(usage, "\n      ([a-z-]+)"));
}

TEST(Readme, TellsEveryExitStatus) {
    EXPECT_EQ(allMatches(textOf(kReadme), "\n\\| ([0-9]+) \\|"),
              allMatches(textOf(SOURCE_DIR "/cli/exit_status.h"), "kExit[A-Za-z]+ = ([0-9]+),"));
}

TEST(Readme, TellsTheSimulatedDaemonsUsage) {
    const std::string usage = outputOf({SIM_PROGRAM, "--help"});
    const std::string synopsis = usage.substr(7, usage.find("\nSimulates") - 7);
    const std::string indented =
        replaced(synopsis, "\n" + std::string(19, ' '), "\n" + std::string(12, ' '));
    EXPECT_NE(textOf(kReadme).find("```text\n" + indented + "\n```\n"), std::string::npos)
        << indented;
}

TEST_F(Manual, EveryPublicOperationOfTheLoopIsExplained) {
    const std::string page = textOf(kPages + "hxkqueue.3");
    std::string header = textOf(SOURCE_DIR "/kqueue/HXKQueue.h");
    const size_t begin = header.find("public:");
    header = header.substr(begin, header.find("private:") - begin);
    int operations = 0;
    for (const std::string& name :
         allMatches(header, "\n    ([^ /][^;{}()]*[ >&*])?([a-z][A-Za-z]+)\\(")) {
        // Made for sources and factories.
        if (name == "addActiveObject" || name == "submitChange" || name == "dropUnlocked" ||
            name == "logInet")
            continue;
        ++operations;
        EXPECT_TRUE(page.find("Fn " + name + ' ') != std::string::npos ||
                    page.find("Fn " + name + '\n') != std::string::npos)
            << name;
    }
    EXPECT_GE(operations, 13);
    for (const std::string& code :
         allMatches(textOf(SOURCE_DIR "/kqueue/HXKQueueEvent.h"), "(HXKQueueEvent[A-Za-z]+) = "))
        EXPECT_NE(page.find(".It Dv " + code), std::string::npos) << code;
}

TEST(ManualExample, TalksToWhoeverListens) {
    const UnixListener listener;
    RunningProgram program({EXAMPLE_PROGRAM, listener.path()});
    {
        const UnixStream connection = listener.accept();
        EXPECT_EQ(connection.receive(6), "hello\n");
        EXPECT_TRUE(connection.send("good day\n"));
    }
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "good day\n");
    EXPECT_EQ(outcome.err, "");
}

}  // namespace
