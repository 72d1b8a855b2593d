// The prompt that scripts/demo --shell leaves a person at, in the shells that have completions.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <ostream>

#include "tests/scripts/script_fixture.h"
#include "tests/support/captured_run.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kCtrlC = "\x03";

// The user's own start file sets the prompt.
struct UsersShell {
    const char* name;
    const char* startFile;
    const char* startText;
};

void PrintTo(const UsersShell& shell, std::ostream* out) {
    *out << shell.name;
}

constexpr const char* kPrompt = "ready> ";

constexpr UsersShell kShells[] = {
    {.name = "bash", .startFile = ".bashrc", .startText = "PS1='ready> '"},
    {.name = "zsh", .startFile = ".zshrc", .startText = "PS1='ready> '; PATH=/usr/bin:/bin"},
    {.name = "fish",
     .startFile = ".config/fish/config.fish",
     .startText = "set -g fish_greeting; function fish_prompt; echo -n 'ready> '; end"}};

// Where manuals were left out of the system, man says so and nothing else.
bool manualsCanBeRead() {
    const std::string man = findProgram("man");
    return !man.empty() &&
           runProgram({man, "-w", SOURCE_DIR "/man/hxusbvctl.8"}).out.find("hxusbvctl.8") !=
               std::string::npos;
}

class DemoShell : public ScriptTest, public testing::WithParamInterface<UsersShell> {
protected:
    void SetUp() override {
        const std::string path = findProgram(GetParam().name);
        if (path.empty())
            GTEST_SKIP() << "left out: there is no " << GetParam().name << " on this machine";
        ScriptTest::SetUp();
        if (IsSkipped()) return;
        fs::create_directories((home / GetParam().startFile).parent_path());
        // Fish makes completions of all manuals when it has none, in the background.
        fs::create_directories(home / ".local/share/fish/generated_completions");
        std::ofstream(home / GetParam().startFile) << GetParam().startText << '\n';
        setenv("SHELL", path.c_str(), 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        for (const char* variable : {"ZDOTDIR", "HISTFILE", "MANPATH", "XDG_CONFIG_HOME",
                                     "XDG_DATA_HOME", "XDG_CACHE_HOME"})
            unsetenv(variable);
    }

    // Of the shell's files in the home directory, those with a history in their names.
    [[nodiscard]] Words histories() const {
        Words names;
        for (const auto& entry : fs::recursive_directory_iterator(home)) {
            const std::string name = entry.path().filename();
            if (name.find("history") != std::string::npos) names.push_back(name);
        }
        return names;
    }
};

TEST_P(DemoShell, CompletesAndHasTheManual) {
    Terminal terminal(script("demo", {"--shell"}));
    ASSERT_TRUE(terminal.waitFor("hxusbvctl dev plug <Tab><Tab>")) << terminal.printed();
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.type("hxusbvctl dev plug 2:\t\r");
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.type("hxusbvctl dev list -p\r");
    EXPECT_TRUE(terminal.waitFor("2:1 - 0403:6001:0600 - Serial Adapter, 3-2, A9007UX1, plugged"))
        << terminal.printed();
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    if (manualsCanBeRead()) {
        terminal.type("man -w hxusbvctl\r");
        EXPECT_TRUE(terminal.waitFor("man/hxusbvctl.8")) << terminal.printed();
        ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    }
    terminal.type("exit\r");
    EXPECT_EQ(terminal.finish(), 0);
    expectNothingIsLeft();
    EXPECT_EQ(histories(), Words{});
}

TEST_P(DemoShell, HasTheKeyboardAndNoDescriptorOfTheScript) {
    makeProgram("look-around", R"(for fd in 3 4 5 6 7 8 9; do
    (eval ": <&$fd") 2>/dev/null && echo "open: $fd"
done
echo looked around
exec cat)");
    Terminal terminal(script("demo", {"--shell"}));
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.type("sh " + (directory / "bin/look-around").string() + "\r");
    ASSERT_TRUE(terminal.waitFor("looked around")) << terminal.printed();
    EXPECT_EQ(terminal.printed().find("open: "), std::string::npos) << terminal.printed();
    terminal.type(kCtrlC);
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.type("exit\r");
    EXPECT_EQ(terminal.finish(), 0);
    expectNothingIsLeft();
}

TEST_P(DemoShell, IsHungUpByASignalToTheScript) {
    Terminal terminal(script("demo", {"--shell"}));
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.signal(SIGTERM);
    EXPECT_EQ(terminal.finish(), 143);
    expectNothingIsLeft();
}

TEST_P(DemoShell, WithoutItsTerminalItLeavesNothing) {
    Terminal terminal(script("demo", {"--shell"}));
    ASSERT_TRUE(terminal.waitFor(kPrompt)) << terminal.printed();
    terminal.hangUp();
    EXPECT_EQ(terminal.finish(), 128 + SIGHUP);
    expectNothingIsLeft();
}

TEST_P(DemoShell, TakesCommandsFromAPipe) {
    Words words{"/bin/sh", "-c", R"(echo "hxusbvctl dev plug 2:1; hxusbvctl dev list -p" | "$@")",
                "sh"};
    for (const std::string& word : script("demo", {"--shell"}))
        words.push_back(word);
    const Outcome outcome = runProgram(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("2:1 - 0403:6001:0600 - Serial Adapter, 3-2, A9007UX1, plugged\n"),
              std::string::npos)
        << outcome.out;
    EXPECT_EQ(outcome.err, "");
    expectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Shells, DemoShell, testing::ValuesIn(kShells),
                         [](const auto& shell) { return std::string(shell.param.name); });

}  // namespace
