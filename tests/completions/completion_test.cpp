// What hxusbvctl's command line becomes in a shell, key by key.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/completions/interactive_shell.h"
#include "tests/e2e/daemon_on_control_path.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/support/captured_run.h"

namespace {

namespace fs = std::filesystem;

const Words kServers{"1", "10", "11", "2"};

// Names that a shell, a terminal or a list could take for something else: the last device's begins
// a line of its own in the list.
constexpr const char* kInventory = R"({"servers": [
    {"id": 1, "host": "office.example", "devices": [
        {"id": 1, "name": "Optical Mouse", "vid": 1133, "pid": 49271, "port": "1-1"},
        {"id": 2, "name": "Flash: \"Drive\", 'big' \\n $(touch here) `touch here` * ~ %B {a,b}",
         "vid": 2385, "pid": 5734, "port": "1-2", "serial": "60A4:4C", "state": "plugged"},
        {"id": 12, "name": "Scanner", "vid": 1, "pid": 1, "port": "1-3", "state": "plugged"}]},
    {"id": 2, "host": "2001:db8::3", "devices": [
        {"id": 7, "name": "\u001b]0;taken\u0007\u009b2J\rBell\u0000gone", "vid": 1, "pid": 1,
         "port": "1-1"},
        {"id": 10, "name": "Line\nfeed: 9:9 - no device", "vid": 1, "pid": 1, "port": "1-2"}]},
    {"id": 10, "host": "spare.example", "port": 40000, "state": "disconnected"},
    {"id": 11, "host": "odd $(touch here).example", "port": 40000}]})";

// Every shell has hxusbvctl in its path, and a sleep that takes as long as a test wants: a minute,
// so that completions wait for a machine that is slow.
class Completion : public WithSimulatedDaemon, public testing::WithParamInterface<ShellKind> {
protected:
    void SetUp() override {
        if (findProgram(GetParam().name).empty())
            GTEST_SKIP() << "left out: there is no " << GetParam().name << " on this machine";
        WithSimulatedDaemon::SetUp();
        if (IsSkipped()) return;
        std::ofstream(directory / "inventory.json") << kInventory;
        fs::create_directories(directory / "bin");
        fs::create_symlink(UTILITY_PROGRAM, directory / "bin/hxusbvctl");
        makeSleep("exec " + findProgram("sleep") + " 60");
        const std::string path = (directory / "bin").string() + ':' + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
    }

    void makeSleep(const std::string& command) const {
        std::ofstream(directory / "bin/sleep") << "#!/bin/sh\n" << command << '\n';
        fs::permissions(directory / "bin/sleep", fs::perms::owner_all);
    }

    [[nodiscard]] InteractiveShell startShell() const { return {GetParam(), directory}; }
};

using Options = std::set<std::string>;
using Verbs = std::map<std::string, Options>;

// The commands of the utility's own usage text.
std::map<std::string, Verbs> commandsOfUsage() {
    std::map<std::string, Verbs> commands;
    std::istringstream usage(runProgram({UTILITY_PROGRAM, "-h"}).out);
    for (std::string line; std::getline(usage, line);) {
        const size_t begin = line.find("hxusbvctl ");
        if (begin == std::string::npos) continue;
        std::istringstream command(line.substr(begin, line.find('\t', begin) - begin));
        std::string program;
        std::string noun;
        std::string verb;
        if (!(command >> program >> noun >> verb)) continue;
        Options& options = commands[noun][verb];
        for (std::string word; command >> word;) {
            if (word == "<HOST-ID>" || word == "<DEVICE-ID>") options.insert({"-p", "-h", "-i"});
            for (size_t at = 0; (at = word.find('-', at)) != std::string::npos && word[0] == '[';
                 ++at)
                options.insert(word.substr(at, 2));
        }
    }
    return commands;
}

template <typename Map>
Words keysOf(const Map& map) {
    Words keys;
    for (const auto& entry : map)
        keys.push_back(entry.first);
    return keys;
}

TEST_P(Completion, WordsAndOptionsAreThoseOfTheUsage) {
    const auto commands = commandsOfUsage();
    ASSERT_EQ(keysOf(commands), (Words{"dev", "srv"}));
    ASSERT_EQ(commands.at("dev").at("plug"), (Options{"-1", "-h", "-i", "-p"}));
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl "), keysOf(commands));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl -"), (Words{"--help", "-h"}));
    for (const auto& [noun, verbs] : commands) {
        const std::string line = "hxusbvctl " + noun + ' ';
        EXPECT_EQ(shell.candidatesFor(line), keysOf(verbs)) << line;
        for (const auto& [verb, options] : verbs)
            EXPECT_EQ(shell.candidatesFor(line + verb + " -"),
                      Words(options.begin(), options.end()))
                << line << verb;
    }
}

TEST_P(Completion, WordsAreCompleted) {
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.wordsAfter("hxusbvctl s\trem\t."), (Words{"hxusbvctl", "srv", "remove", "."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl d\tu\t."), (Words{"hxusbvctl", "dev", "unplug", "."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl srv list -\t."),
              (Words{"hxusbvctl", "srv", "list", "-D", "."}));
}

TEST_P(Completion, ServersAreCompletedByTheirIds) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    for (const std::string form :
         {"srv remove", "srv disconnect", "srv reconnect", "dev plug", "dev unplug", "dev plug -1"})
        EXPECT_EQ(shell.candidatesFor("hxusbvctl " + form + " -i "), kServers) << form;
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -1i "), kServers);
    EXPECT_EQ(shell.wordsAfter("hxusbvctl srv remove -i 2\t."),
              (Words{"hxusbvctl", "srv", "remove", "-i", "2", "."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl srv remove -i 1\t."),
              (Words{"hxusbvctl", "srv", "remove", "-i", "1."}));
}

TEST_P(Completion, HostsAreThoseWithThePortOfTheLine) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl srv remove -h "),
              (Words{"2001:db8::3", "office.example"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -p 40000 -h "), (Words{"spare.example"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -p40000 -h "), (Words{"spare.example"}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl srv remove -h 2001:d\t."),
              (Words{"hxusbvctl", "srv", "remove", "-h", "2001:db8::3", "."}));
}

TEST_P(Completion, DevicesAreThoseThatTheActionIsFor) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug "), (Words{"1:1", "2:10", "2:7"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -1 "), (Words{"1:1", "2:10", "2:7"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev unplug "), (Words{"1:12", "1:2"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev unplug -- "), (Words{"1:12", "1:2"}));
}

TEST_P(Completion, ServerAndDeviceAreOneWord) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug 1\t."),
              (Words{"hxusbvctl", "dev", "plug", "1:1", "."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug 2:1\t."),
              (Words{"hxusbvctl", "dev", "plug", "2:10", "."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev unplug 1\t."),
              (Words{"hxusbvctl", "dev", "unplug", "1:."}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug 3:\t."),
              (Words{"hxusbvctl", "dev", "plug", "3:."}));
}

TEST_P(Completion, DevicesOfAServerThatIsNamedGoByTheirOwnIds) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -i 2 "), (Words{"10", "7"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -i2 "), (Words{"10", "7"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev unplug -h office.example "), (Words{"12", "2"}));
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev unplug -h spare.example "), Words{});
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev unplug -p 40000 -h office.example "), Words{});
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -h 2001:db8::3 "), (Words{"10", "7"}));
}

TEST_P(Completion, HostsOfServersToAddAreThoseThatTheShellKnows) {
    std::ofstream(directory / "hosts") << "192.0.2.1 attic.example\n";
    fs::create_directories(directory / ".ssh");
    std::ofstream(directory / ".ssh/known_hosts") << "attic.example ssh-ed25519 AAAA\n";
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.wordsAfter("hxusbvctl srv add -p 40000 att\t."),
              (Words{"hxusbvctl", "srv", "add", "-p", "40000", "attic.example", "."}));
}

TEST_P(Completion, NothingElseIsOffered) {
    const RunningProgram daemon = start();
    std::ofstream(directory / "file") << "";
    InteractiveShell shell = startShell();
    for (const std::string line :
         {"hxusbvctl srv list -D ", "hxusbvctl dev list -n -p ", "hxusbvctl srv remove -i 1 ",
          "hxusbvctl srv remove -p ", "hxusbvctl dev plug 1:1 ", "hxusbvctl dev plug -- 1:1 ",
          "hxusbvctl -h ", "hxusbvctl nothing ", "hxusbvctl dev add "})
        EXPECT_EQ(shell.candidatesFor(line), Words{}) << line;
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug 1:1 -\t."),
              (Words{"hxusbvctl", "dev", "plug", "1:1", "-."}));
}

TEST_P(Completion, DescriptionsStandBesideWhatIsListed) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    shell.list("hxusbvctl dev plug ");
    EXPECT_TRUE(shell.shows("Optical Mouse, 1-1, unplugged")) << shell.screen();
    EXPECT_EQ(shell.endLine(), (Words{"hxusbvctl", "dev", "plug"}));
    shell.list("hxusbvctl srv remove -i ");
    EXPECT_TRUE(shell.shows("office.example:33000 - connected")) << shell.screen();
}

TEST_P(Completion, NamesAreShownAndNeverObeyed) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    shell.list("hxusbvctl dev plug ");
    EXPECT_TRUE(shell.shows("?]0;taken??2J?Bell, 1-1, unplugged")) << shell.screen();
    EXPECT_EQ(shell.endLine(), (Words{"hxusbvctl", "dev", "plug"}));
    EXPECT_EQ(shell.screen().find("\x1b]0;taken"), std::string::npos);
    EXPECT_EQ(shell.screen().find("\xc2\x9b"), std::string::npos);
    shell.list("hxusbvctl dev unplug 1:");
    EXPECT_TRUE(shell.shows(R"(Flash: "Drive", 'big' \n $(touch here) `touch here` * ~ %B {a,b})"))
        << shell.screen();
    EXPECT_EQ(shell.endLine(), (Words{"hxusbvctl", "dev", "unplug", "1:"}));
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev unplug 1:2\t."),
              (Words{"hxusbvctl", "dev", "unplug", "1:2", "."}));
    EXPECT_FALSE(fs::exists("here"));
    EXPECT_FALSE(fs::exists(directory / "here"));
}

// Each name adds a line to the list, and both lines are of the same device.
TEST_P(Completion, NamesOfTheSameIdAreNotInserted) {
    std::ofstream(directory / "inventory.json")
        << R"({"servers": [{"id": 1, "host": "a", "devices": [
        {"id": 1, "name": "\n9:9 - 0000:0000:0000 - one; more", "vid": 1, "pid": 1, "port": "1"},
        {"id": 2, "name": "\n9:9 - 0000:0000:0000 - one; less", "vid": 1, "pid": 1, "port": "2"}
    ]}]})";
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    shell.run(GetParam().listAtOnce);
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug 9\t."),
              (Words{"hxusbvctl", "dev", "plug", "9:9", "."}));
}

TEST_P(Completion, ProgramMayBeNamedByItsPath) {
    const RunningProgram daemon = start();
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.wordsAfter("~/bin/hxusbvctl dev plug 1\t."),
              (Words{(directory / "bin/hxusbvctl").string(), "dev", "plug", "1:1", "."}));
}

TEST_P(Completion, WithoutADaemonNothingIsOfferedAndNothingSaid) {
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl srv remove -i "), Words{});
    EXPECT_EQ(shell.candidatesFor("hxusbvctl srv remove -h "), Words{});
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug "), Words{});
    EXPECT_EQ(shell.candidatesFor("hxusbvctl dev plug -h box "), Words{});
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev unplug \t."),
              (Words{"hxusbvctl", "dev", "unplug", "."}));
    EXPECT_EQ(shell.screen().find("cannot connect"), std::string::npos);
}

TEST_P(Completion, WithADaemonThatTalksNonsenseNothingIsOfferedAndNothingSaid) {
    const RunningProgram daemon = start({"--misbehave", "not-json"});
    InteractiveShell shell = startShell();
    EXPECT_EQ(shell.candidatesFor("hxusbvctl srv remove -i "), Words{});
    EXPECT_EQ(shell.wordsAfter("hxusbvctl dev plug \t."), (Words{"hxusbvctl", "dev", "plug", "."}));
    EXPECT_EQ(shell.screen().find("cannot parse"), std::string::npos);
}

// A second is over when the test says so.
TEST_P(Completion, DaemonThatDoesNotAnswerIsGivenUpAfterASecond) {
    const std::string second = directory / "second";
    ASSERT_EQ(mkfifo(second.c_str(), 0600), 0);
    makeSleep("echo \"$1\" >" + (directory / "asked").string() + "; exec cat " + second);
    const ScriptedPeer daemon;
    InteractiveShell shell = startShell();
    shell.type("hxusbvctl srv remove -i \t");
    const UnixStream connection = daemon.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 8U);
    std::ofstream(second).close();
    EXPECT_EQ(connection.receiveToEnd(), "");  // the utility has been ended
    EXPECT_EQ(shell.endLine(), (Words{"hxusbvctl", "srv", "remove", "-i"}));
    EXPECT_EQ(shell.screen().find("erminated"), std::string::npos);
    std::string asked;
    std::ifstream(directory / "asked") >> asked;
    EXPECT_EQ(asked, "1");
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::ValuesIn(shellKinds()),
                         [](const auto& shell) { return std::string(shell.param.name); });

}  // namespace
