#include "cli/command_line.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "cli/usage.h"
#include "tests/cli/usage_text.h"
#include "tests/support/captured_run.h"

namespace {

using Words = std::vector<std::string>;

constexpr const char* kPath = "/opt/bin/ctl";

// The kind and every field that has not its default value.
std::string describe(const ParsedCommand& command) {
    std::string text = std::to_string(static_cast<int>(command.kind));
    if (command.action) text += " action=" + *command.action;
    if (command.host) text += " host=<" + std::string(command.host) + ">";
    if (command.port != 33000)
        text += " port=" + std::to_string(static_cast<uint16_t>(command.port));
    if (command.serverIdGiven || command.serverId != 0)
        text += " serverId=" + std::to_string(command.serverId);
    if (command.serverId != 0 && !command.serverIdGiven) text += "?";
    if (command.deviceId != 0) text += " deviceId=" + std::to_string(command.deviceId);
    if (command.once) text += " once";
    if (command.sortByName) text += " sortByName";
    if (!command.ascending) text += " descending";
    if (command.pluggedOnly) text += " pluggedOnly";
    if (!command.showDevices) text += " serversOnly";
    return text;
}

Outcome parseAll(const Words& arguments) {
    return runInChild([&arguments] {
        std::vector<char*> argv;
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        const int argc = static_cast<int>(arguments.size());
        std::fputs(describe(parseCommandLine(argc, argv.data())).c_str(), stdout);
    });
}

Outcome parse(Words words) {
    words.insert(words.begin(), kPath);
    return parseAll(words);
}

void expectCommand(const Words& words, const std::string& description) {
    const Outcome outcome = parse(words);
    EXPECT_EQ(outcome.out, description) << testing::PrintToString(words);
    EXPECT_EQ(outcome.err, "") << testing::PrintToString(words);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(words);
}

void expectFailure(const Words& words, const std::string& err, int status) {
    const Outcome outcome = parse(words);
    EXPECT_EQ(outcome.out, "") << testing::PrintToString(words);
    EXPECT_EQ(outcome.err, err) << testing::PrintToString(words);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(words);
}

void expectUsage(const Words& words, const std::string& line = "") {
    expectFailure(words, line + usageText("ctl"), 22);
}

// The option parser's own line, whose wording is the C library's, stands before the usage text.
void expectOptionRefused(const Words& words, const std::string& verb, char option) {
    const Outcome outcome = parse(words);
    const std::string usage = usageText("ctl");
    EXPECT_EQ(outcome.status, 22);
    EXPECT_EQ(outcome.out, "");
    ASSERT_TRUE(outcome.err.ends_with("\n" + usage)) << outcome.err;
    const std::string line = outcome.err.substr(0, outcome.err.size() - usage.size());
    EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
    EXPECT_TRUE(line.starts_with(verb + ": ")) << line;
    EXPECT_NE(line.find(option, verb.size()), std::string::npos) << line;
}

TEST(CommandLine, WithoutArgumentsEndsWith22AndUsage) {
    expectUsage({}, "Error: arguments must be specified.\n");
}

TEST(CommandLine, WithoutEvenAProgramNameTheUsageShowsNone) {
    const Outcome outcome = parseAll({});
    EXPECT_EQ(outcome.err, "Error: arguments must be specified.\n" + usageText(""));
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 22);
}

TEST(CommandLine, TheUsageShowsTheBaseNameOfTheProgram) {
    EXPECT_EQ(parseAll({"ctl"}).err, "Error: arguments must be specified.\n" + usageText("ctl"));
    EXPECT_EQ(parseAll({"/a/b c/x%s", "-h"}).out, usageText("x%s"));
}

TEST(CommandLine, HelpGoesToStandardOutputWithStatus0) {
    for (const Words& words : {Words{"-h"}, Words{"--help"}, Words{"-h", "extra", "words"},
                               Words{"--help", "srv", "nonsense"}}) {
        const Outcome outcome = parse(words);
        EXPECT_EQ(outcome.out, usageText("ctl"));
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(CommandLine, UnknownWordsEndWith22AndUsage) {
    for (const Words& words :
         {Words{"usb"}, Words{"SRV"}, Words{""}, Words{"srv "}, Words{"--hel"}, Words{"-hx"},
          Words{"srv", "-h"}, Words{"srv", "--help"}, Words{"srv", "plug"}, Words{"dev", "add"},
          Words{"srv", ""}, Words{"dev", "List"}, Words{"list"}, Words{"srv", "lis"}})
        expectUsage(words, "Error: Invalid argument.\n");
}

TEST(CommandLine, ABareNounIsItsList) {
    expectCommand({"srv"}, "0");
    expectCommand({"srv", "list"}, "0");
    expectCommand({"dev"}, "3");
    expectCommand({"dev", "list"}, "3");
}

TEST(SrvList, TakesServersOnly) {
    expectCommand({"srv", "list", "-D"}, "0 serversOnly");
    expectCommand({"srv", "list", "-DD", "-D"}, "0 serversOnly");
}

TEST(SrvList, IgnoresOperands) {
    expectCommand({"srv", "list", "extra"}, "0");
    expectCommand({"srv", "list", "extra", "-D"}, "0");
    expectCommand({"srv", "list", "-D", "--", "-x"}, "0 serversOnly");
}

TEST(SrvList, RefusesOtherOptions) {
    expectOptionRefused({"srv", "list", "-p"}, "list", 'p');
    expectOptionRefused({"srv", "list", "-D", "-n"}, "list", 'n');
    expectOptionRefused({"srv", "list", "--long"}, "list", '-');
}

TEST(SrvAdd, TakesTheFirstOperandAsHost) {
    expectCommand({"srv", "add", "box"}, "1 host=<box>");
    expectCommand({"srv", "add", "box", "other"}, "1 host=<box>");
    expectCommand({"srv", "add", "--", "-box"}, "1 host=<-box>");
    expectCommand({"srv", "add", ""}, "1 host=<>");
}

TEST(SrvAdd, TakesAPort) {
    expectCommand({"srv", "add", "-p", "5", "box"}, "1 host=<box> port=5");
    expectCommand({"srv", "add", "-p5", "box"}, "1 host=<box> port=5");
    expectCommand({"srv", "add", "-p", "5", "-p", "6", "box"}, "1 host=<box> port=6");
}

TEST(SrvAdd, AnOptionAfterTheHostIsAnOperand) {
    expectCommand({"srv", "add", "host", "-p", "5"}, "1 host=<host>");
}

TEST(SrvAdd, ThePortIsReadAsFarAsItIsANumber) {
    expectCommand({"srv", "add", "-p", "70000", "box"}, "1 host=<box> port=4464");
    expectCommand({"srv", "add", "-p", "abc", "box"}, "1 host=<box> port=0");
    expectCommand({"srv", "add", "-p", "", "box"}, "1 host=<box> port=0");
    expectCommand({"srv", "add", "-p", " +80x", "box"}, "1 host=<box> port=80");
    expectCommand({"srv", "add", "-p", "-1", "box"}, "1 host=<box> port=65535");
    expectCommand({"srv", "add", "-p", "99999999999999999999", "box"}, "1 host=<box> port=65535");
}

TEST(SrvAdd, WithoutAHostEndsWith22AndUsage) {
    expectUsage({"srv", "add"}, "Error: host is missing.\n");
    expectUsage({"srv", "add", "-p", "5"}, "Error: host is missing.\n");
    expectUsage({"srv", "add", "--"}, "Error: host is missing.\n");
}

TEST(SrvAdd, RefusesOtherOptions) {
    expectOptionRefused({"srv", "add", "-h", "host"}, "add", 'h');
    expectOptionRefused({"srv", "add", "-i", "3", "host"}, "add", 'i');
    expectOptionRefused({"srv", "add", "-p"}, "add", 'p');
}

TEST(ServerAction, EachVerbIsItsAction) {
    for (const char* verb : {"remove", "disconnect", "reconnect"})
        expectCommand({"srv", verb, "-i", "3"}, "2 action=" + std::string(verb) + " serverId=3");
}

TEST(ServerAction, TakesAHostAndAPort) {
    expectCommand({"srv", "remove", "-h", "box"}, "2 action=remove host=<box>");
    expectCommand({"srv", "remove", "-p", "9", "-h", "box"}, "2 action=remove host=<box> port=9");
    expectCommand({"srv", "remove", "-h", ""}, "2 action=remove host=<>");
    expectCommand({"srv", "remove", "-h", "a", "-h", "b"}, "2 action=remove host=<b>");
}

TEST(ServerAction, TakesBothHostAndId) {
    expectCommand({"srv", "remove", "-h", "box", "-i", "3"},
                  "2 action=remove host=<box> serverId=3");
}

TEST(ServerAction, IgnoresOperands) {
    expectCommand({"srv", "remove", "-i", "3", "4:5", "-x"}, "2 action=remove serverId=3");
}

TEST(ServerAction, WithoutAServerEndsWith22AndUsage) {
    expectUsage({"srv", "remove", "3"}, "Error: host Id is missing.\n");
    expectUsage({"srv", "disconnect"}, "Error: host Id is missing.\n");
    expectUsage({"srv", "reconnect", "-p", "5"}, "Error: host Id is missing.\n");
}

TEST(ServerAction, RefusesOtherOptions) {
    expectOptionRefused({"srv", "remove", "-1", "-i", "3"}, "remove", '1');
    expectOptionRefused({"srv", "disconnect", "-i"}, "disconnect", 'i');
    expectOptionRefused({"srv", "reconnect", "-h"}, "reconnect", 'h');
}

TEST(ServerId, IsReadAsUnsigned32) {
    expectCommand({"srv", "remove", "-i", "0"}, "2 action=remove serverId=0");
    expectCommand({"srv", "remove", "-i", "-1"}, "2 action=remove serverId=4294967295");
    expectCommand({"srv", "remove", "-i", " 5"}, "2 action=remove serverId=5");
    expectCommand({"srv", "remove", "-i", "+5"}, "2 action=remove serverId=5");
    expectCommand({"srv", "remove", "-i", "007"}, "2 action=remove serverId=7");
    expectCommand({"srv", "remove", "-i", "4294967299"}, "2 action=remove serverId=3");
    expectCommand({"srv", "remove", "-i", "99999999999999999999999"},
                  "2 action=remove serverId=4294967295");
    expectCommand({"srv", "remove", "-i", "1", "-i", "2"}, "2 action=remove serverId=2");
}

TEST(ServerId, MalformedEndsWith22AndUsageAlone) {
    for (const char* id : {"", "12a", "a", " ", "-", "+", "5 ", "0x5", "3:7", "1.5"})
        expectUsage({"srv", "remove", "-i", id});
    expectUsage({"dev", "plug", "-i", "", "7"});
    expectUsage({"dev", "unplug", "-i", "12a", "7"});
}

TEST(ServerId, MalformedIsToldBeforeWhatElseIsWrong) {
    expectUsage({"dev", "plug", "-i", "x"});
    expectUsage({"srv", "remove", "-i", "x", "-y"});
}

TEST(DevList, SortsAndFilters) {
    expectCommand({"dev", "list", "-n"}, "3 sortByName");
    expectCommand({"dev", "list", "-N"}, "3 sortByName descending");
    expectCommand({"dev", "list", "-p"}, "3 pluggedOnly");
    expectCommand({"dev", "list", "-np"}, "3 sortByName pluggedOnly");
}

TEST(DevList, TheLaterOfTwoDirectionsWins) {
    expectCommand({"dev", "list", "-n", "-N"}, "3 sortByName descending");
    expectCommand({"dev", "list", "-N", "-n"}, "3 sortByName");
}

TEST(DevList, PluggedOnlyTakesNoArgument) {
    expectCommand({"dev", "list", "-p", "extra"}, "3 pluggedOnly");
    expectCommand({"dev", "list", "-pN"}, "3 sortByName descending pluggedOnly");
    expectCommand({"dev", "list", "-p", "5", "-n"}, "3 pluggedOnly");
}

TEST(DevList, RefusesOtherOptions) {
    expectOptionRefused({"dev", "list", "-D"}, "list", 'D');
    expectOptionRefused({"dev", "list", "-h", "box"}, "list", 'h');
}

TEST(DevPlug, TakesServerAndDeviceInOneOperand) {
    expectCommand({"dev", "plug", "3:7"}, "4 action=plug serverId=3 deviceId=7");
    expectCommand({"dev", "unplug", "3:7"}, "4 action=unplug serverId=3 deviceId=7");
    expectCommand({"dev", "plug", "0:0"}, "4 action=plug serverId=0");
}

TEST(DevPlug, TakesADeviceOfAServerById) {
    expectCommand({"dev", "plug", "-i", "2", "7"}, "4 action=plug serverId=2 deviceId=7");
}

TEST(DevPlug, TakesADeviceOfAServerByHost) {
    expectCommand({"dev", "plug", "-h", "box", "7"}, "4 action=plug host=<box> deviceId=7");
    expectCommand({"dev", "unplug", "-p", "8", "-h", "box", "7"},
                  "4 action=unplug host=<box> port=8 deviceId=7");
}

TEST(DevPlug, TheOperandsServerReplacesTheOption) {
    expectCommand({"dev", "plug", "-i", "2", "3:7"}, "4 action=plug serverId=3 deviceId=7");
}

TEST(DevPlug, TakesOnce) {
    expectCommand({"dev", "plug", "-1", "3:7"}, "4 action=plug serverId=3 deviceId=7 once");
}

TEST(DevPlug, IgnoresFurtherOperands) {
    expectCommand({"dev", "plug", "3:7", "-1", "x"}, "4 action=plug serverId=3 deviceId=7");
}

TEST(DevPlug, WithoutADeviceEndsWith22AndUsage) {
    expectUsage({"dev", "plug"}, "Error: device Id is missing.\n");
    expectUsage({"dev", "unplug", "-i", "3"}, "Error: device Id is missing.\n");
    expectUsage({"dev", "plug", "-h", "box", "-i", "3"}, "Error: device Id is missing.\n");
}

TEST(DevPlug, AMalformedDeviceEndsWith22AndUsageAlone) {
    for (const char* device :
         {"3:", ":7", "3:7x", "7x", "0x7", " 7", "", "3: 7", "3:-7", "+7", "3:7:1", "a"})
        expectUsage({"dev", "plug", device});
    expectUsage({"dev", "plug", "-h", "box", "-i", "3", "x"});
}

TEST(DevPlug, ABareDeviceWithoutServerExits22WithoutUsage) {
    expectFailure({"dev", "plug", "7"}, "Error: server is not specified.\n", 22);
    expectFailure({"dev", "unplug", "-p", "5", "7"}, "Error: server is not specified.\n", 22);
}

TEST(DevPlug, BothHostAndServerIdExit22WithoutUsage) {
    const std::string line =
        "Error: server Id and host are specified. They are mutually exclusive.\n";
    expectFailure({"dev", "plug", "-h", "box", "3:7"}, line, 22);
    expectFailure({"dev", "plug", "-h", "", "3:7"}, line, 22);
    expectFailure({"dev", "plug", "-h", "box", "-i", "1", "7"}, line, 22);
    expectFailure({"dev", "unplug", "-i", "1", "-h", "box", "3:7"}, line, 22);
}

TEST(DevUnplug, RefusesOnce) {
    expectOptionRefused({"dev", "unplug", "-1", "3:7"}, "unplug", '1');
}

TEST(DevPlug, RefusesOtherOptions) {
    expectOptionRefused({"dev", "plug", "-n", "3:7"}, "plug", 'n');
    expectOptionRefused({"dev", "plug", "-p"}, "plug", 'p');
}

TEST(CommandLine, HasItsDefaults) {
    const ParsedCommand command;
    EXPECT_EQ(command.kind, CommandKind::ServerList);
    EXPECT_EQ(command.action, nullptr);
    EXPECT_EQ(command.host, nullptr);
    EXPECT_EQ(command.port, 33000);
    EXPECT_EQ(command.serverId, 0U);
    EXPECT_FALSE(command.serverIdGiven);
    EXPECT_EQ(command.deviceId, 0U);
    EXPECT_FALSE(command.once || command.sortByName || command.pluggedOnly);
    EXPECT_TRUE(command.ascending && command.showDevices);
}

TEST(Usage, NeverOverrunsItsName) {
    EXPECT_EQ(sizeof programName, 1024U);
    const Outcome outcome = parseAll({std::string(2000, 'x'), "-h"});
    EXPECT_EQ(outcome.out, usageText(""));
    const std::string longest(1023, 'x');
    EXPECT_EQ(parseAll({longest, "-h"}).out, usageText(longest));
}

}  // namespace
