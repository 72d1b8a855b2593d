// scripts/demo as a person sees it, and what is there after it.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/scripts/script_fixture.h"
#include "tests/support/captured_run.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kCtrlC = "\x03";
constexpr const char* kEscape = "\x1b[";

// Takes no time, but the time between two looks at something, and tells of all others.
constexpr const char* kSleepThatTells = R"(case $1 in
    0.*) PATH=${PATH#*:} exec sleep "$1" ;;
    *) echo "$1" >>"$HOME/pauses" ;;
esac)";

constexpr const char* kSleepWithoutEnd = "echo pausing >/dev/tty; exec tail -f /dev/null";

class Demo : public ScriptTest {
protected:
    [[nodiscard]] static Words demo(const Words& arguments = {}) {
        return script("demo", arguments);
    }

    // In a tree without sources, for what is built there is up to the test.
    [[nodiscard]] fs::path copyOfScripts() const {
        unsetenv("CXX");
        fs::create_directory(directory / "tree");
        fs::copy(SOURCE_DIR "/scripts", directory / "tree/scripts");
        return directory / "tree/scripts";
    }

    [[nodiscard]] std::vector<double> pauses() const {
        std::ifstream file(home / "pauses");
        std::vector<double> seconds;
        for (double pause = 0; file >> pause;)
            seconds.push_back(pause);
        return seconds;
    }
};

struct Shown {
    std::string command;
    std::string output;
    int status = 0;
};

// What stands between "$ " and "(exit status N)", one after the other. Fails when one lacks
// another.
std::vector<Shown> shownIn(const std::string& text) {
    std::vector<Shown> commands;
    std::istringstream lines(text);
    bool open = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("$ ")) {
            EXPECT_FALSE(open) << "no status before: " << line;
            commands.push_back({.command = line.substr(2), .output = "", .status = -1});
            open = true;
        } else if (line.starts_with("(exit status ")) {
            EXPECT_TRUE(open) << "no command before a status";
            if (open) commands.back().status = std::stoi(line.substr(13));
            open = false;
        } else if (open) {
            commands.back().output += line + '\n';
        }
    }
    EXPECT_FALSE(open) << "no status at the end";
    return commands;
}

// "srv list" and the like: those that the usage text has, and those that begin a command.
std::set<std::string> formsOfUsage() {
    std::set<std::string> forms;
    std::istringstream usage(runProgram({UTILITY_PROGRAM, "-h"}).out);
    for (std::string word; usage >> word;) {
        std::string verb;
        if ((word == "srv" || word == "dev") && usage >> verb)
            forms.insert(verb == "-" ? word : word + ' ' + verb);
    }
    return forms;
}

bool shows(const std::vector<Shown>& commands, const std::string& form) {
    const std::string command = "hxusbvctl " + form;
    return std::any_of(commands.begin(), commands.end(), [&](const Shown& shown) {
        return shown.command == command || shown.command.starts_with(command + ' ');
    });
}

TEST_F(Demo, ShowsEveryCommandWithItsOutputAndItsStatus) {
    makeProgram("sleep", kSleepThatTells);
    const Outcome outcome = runProgram(demo());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out.find('\x1b'), std::string::npos);
    EXPECT_EQ(pauses(), std::vector<double>{});
    const std::vector<Shown> commands = shownIn(outcome.out);
    ASSERT_EQ(formsOfUsage().size(), 10U);
    for (const std::string& form : formsOfUsage())
        EXPECT_TRUE(shows(commands, form)) << form;
    std::set<int> statuses;
    for (const Shown& shown : commands) {
        statuses.insert(shown.status);
        EXPECT_TRUE(shown.status == 0 || !shown.output.empty()) << shown.command;
    }
    EXPECT_EQ(statuses, (std::set<int>{0, 2, 12, 22, 37}));
    EXPECT_NE(outcome.out.find("scripts/demo --shell"), std::string::npos);
    EXPECT_NE(outcome.out.find("man man/hxusbvctl.8"), std::string::npos);
    expectNothingIsLeft();
}

TEST_F(Demo, ServerThatIsAddedIsSeenToConnect) {
    const std::vector<Shown> commands = shownIn(runProgram(demo()).out);
    std::vector<std::string> states;
    for (const Shown& shown : commands)
        for (const std::string state : {"connecting", "connected"})
            if (shown.output.find("attic.example:40000 - " + state + '\n') != std::string::npos)
                states.push_back(state);
    EXPECT_EQ(states, (std::vector<std::string>{"connecting", "connected", "connected"}));
}

TEST_F(Demo, OnATerminalItLeavesTimeToRead) {
    makeProgram("sleep", kSleepThatTells);
    Terminal terminal(demo());
    EXPECT_EQ(terminal.finish(), 0);
    std::string text = terminal.printed();
    EXPECT_NE(text.find(kEscape), std::string::npos);
    // One before each command, heading and the end, but for the first heading and one command that
    // must come at once. Four other lines look like headings: two at the beginning, two at the end.
    size_t marks = 0;
    for (const char* mark : {"(exit status ", "== "})
        for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; ++at)
            ++marks;
    const std::vector<double> seconds = pauses();
    ASSERT_GT(seconds.size(), 30U);
    EXPECT_EQ(seconds.size(), marks - 4 + 1 - 2);
    for (const double pause : seconds)
        EXPECT_TRUE(pause >= 1 && pause <= 5) << pause;
    EXPECT_EQ(seconds.back(), 5) << "after the longest output";
    expectNothingIsLeft();
}

// Until the first command has been shown.
std::string beginningOf(Terminal& terminal) {
    EXPECT_TRUE(terminal.waitFor("(exit status 0)"));
    terminal.type(kCtrlC);
    EXPECT_EQ(terminal.finish(), 130);
    return terminal.printed();
}

TEST_F(Demo, FastIsWithoutPausesAndInColour) {
    makeProgram("sleep", kSleepThatTells);
    Terminal terminal(demo({"--fast"}));
    EXPECT_NE(beginningOf(terminal).find(kEscape), std::string::npos);
    EXPECT_EQ(pauses(), std::vector<double>{});
}

TEST_F(Demo, WithNoColorSetThereIsNone) {
    setenv("NO_COLOR", "1", 1);
    Terminal terminal(demo());
    EXPECT_EQ(beginningOf(terminal).find('\x1b'), std::string::npos);
}

TEST_F(Demo, NoColorThatIsEmptyIsNotSet) {
    setenv("NO_COLOR", "", 1);
    Terminal terminal(demo());
    EXPECT_NE(beginningOf(terminal).find(kEscape), std::string::npos);
}

TEST_F(Demo, DumbTerminalGetsNoColour) {
    setenv("TERM", "dumb", 1);
    Terminal terminal(demo());
    EXPECT_EQ(beginningOf(terminal).find('\x1b'), std::string::npos);
}

TEST_F(Demo, InterruptedInAPauseItLeavesNothing) {
    makeProgram("sleep", kSleepWithoutEnd);
    Terminal terminal(demo());
    ASSERT_TRUE(terminal.waitFor("pausing"));
    terminal.type(kCtrlC);
    EXPECT_EQ(terminal.finish(), 130);
    expectNothingIsLeft();
}

TEST_F(Demo, EndedBySignalsItLeavesNothing) {
    for (const int number : {SIGTERM, SIGHUP, SIGQUIT}) {
        makeProgram("sleep", kSleepWithoutEnd);
        Terminal terminal(demo());
        ASSERT_TRUE(terminal.waitFor("pausing"));
        terminal.signal(number);
        EXPECT_EQ(terminal.finish(), 128 + number);
    }
    expectNothingIsLeft();
}

TEST_F(Demo, WithoutItsTerminalItLeavesNothing) {
    makeProgram("sleep", kSleepWithoutEnd);
    Terminal terminal(demo());
    ASSERT_TRUE(terminal.waitFor("pausing"));
    terminal.hangUp();
    EXPECT_EQ(terminal.finish(), 128 + SIGHUP);
    expectNothingIsLeft();
}

TEST_F(Demo, WithoutItsReaderItLeavesNothing) {
    Words words{"/bin/sh", "-c", R"("$@" | sed '/^\$ /q')", "sh"};
    for (const std::string& word : demo())
        words.push_back(word);
    const Outcome outcome = runProgram(words);
    EXPECT_NE(outcome.out.find("$ hxusbvctl srv\n"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.err, "");
    expectNothingIsLeft();
}

// One build asks the terminal for something, which is not there for it; the other takes a while to
// end.
TEST_F(Demo, InterruptedWhileItBuildsItLeavesNothing) {
    for (const char* name : {"c++", "ninja"})
        makeProgram(name, "exit 0");
    const fs::path scripts = copyOfScripts();
    const std::string begin = R"([ "$1" = --version ] && echo "cmake version 99.0" && exit
echo configuring >/dev/tty
)";
    makeProgram("cmake", begin + "cat /dev/tty");
    Terminal interrupted({scripts / "demo"});
    ASSERT_TRUE(interrupted.waitFor("configuring")) << interrupted.printed();
    interrupted.type(kCtrlC);
    EXPECT_EQ(interrupted.finish(), 130);

    makeProgram("cmake", "trap 'sleep 0.2; exit 1' TERM\n" + begin + "while :; do sleep 1; done");
    Terminal ended({scripts / "demo"});
    ASSERT_TRUE(ended.waitFor("configuring")) << ended.printed();
    ended.signal(SIGTERM);
    EXPECT_EQ(ended.finish(), 143);
    EXPECT_TRUE(allAreGone());
    expectNothingIsLeft();
}

TEST_F(Demo, BuildThatFailsIsToldSo) {
    for (const char* name : {"c++", "ninja"})
        makeProgram(name, "exit 0");
    makeProgram("cmake", R"([ "$1" = --version ] && echo "cmake version 99.0" && exit
echo "a line of the compiler's"
exit 1)");
    const Outcome outcome = runProgram({copyOfScripts() / "demo"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "== building\n");
    EXPECT_EQ(outcome.err,
              "a line of the compiler's\n"
              "demo: the build has failed; all of it is in build/demo/demo.log\n");
    expectNothingIsLeft();
}

TEST_F(Demo, DaemonThatDoesNotStartIsToldSo) {
    for (const char* name : {"cli/hxusbvctl", "sim/hxusbvd-sim"}) {
        fs::create_directories((directory / "bin" / name).parent_path());
        makeProgram(name, "exit 1");
    }
    const Outcome outcome = runProgram({SOURCE_DIR "/scripts/demo", "--with", directory / "bin"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "demo: the simulated daemon does not start\n");
    expectNothingIsLeft();
}

TEST_F(Demo, WhatItDoesNotKnowIsAnError) {
    const std::vector<std::pair<Words, std::string>> wrong{
        {{"scripts/demo", "--loud"},
         "demo: unknown argument: --loud (known: --shell, --fast, --with FOLDER)\n"},
        {{"scripts/demo", "shell"},
         "demo: unknown argument: shell (known: --shell, --fast, --with FOLDER)\n"},
        {{"scripts/demo", "--fast", "--with"}, "demo: --with wants a folder\n"},
        {{"scripts/demo", "--with", "docs"},
         "demo: nothing is built in docs (wanted: cli/hxusbvctl and sim/hxusbvd-sim)\n"}};
    for (auto [words, message] : wrong) {
        words[0] = SOURCE_DIR "/scripts/demo";
        const Outcome outcome = runProgram(words);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, message);
    }
    expectNothingIsLeft();
}

}  // namespace
