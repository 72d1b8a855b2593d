#include "cli/device_list.h"

#include <gtest/gtest.h>

#include "tests/cli/report_fixture.h"

namespace {

using namespace std::string_literals;

constexpr const char* kLine = "1:3 - 046d:c31c:6402 - Keyboard, 1-4, A1, plugged\n";

std::string one(const std::vector<Change>& changes) {
    return deviceList(array({server({device(changes)})}));
}

// A device that is told by its id and name only.
std::string named(const std::string& id, const std::string& name) {
    return device({{"id", id}, {"name", "\"" + name + "\""}});
}

// "server:device name" of each line.
std::string brief(const std::string& report) {
    std::string text;
    for (size_t start = 0; start < report.size();) {
        const size_t end = report.find('\n', start);
        const std::string line = report.substr(start, end - start);
        const size_t name = line.find(" - ", line.find(" - ") + 3) + 3;
        text +=
            line.substr(0, line.find(' ')) + " " + line.substr(name, line.find(',') - name) + "\n";
        start = end + 1;
    }
    return text;
}

TEST(DeviceList, ADeviceIsALine) {
    EXPECT_EQ(one({}), kLine);
}

TEST(DeviceList, NoServersOrDevicesPrintNothing) {
    EXPECT_EQ(deviceList("[]"), "");
    EXPECT_EQ(deviceList(array({server(), server()})), "");
    EXPECT_EQ(deviceList("[1,null,\"x\",[],{}]"), "");
}

TEST(DeviceList, WithoutASerialNumberItsPartDropsOut) {
    const std::string line = "1:3 - 046d:c31c:6402 - Keyboard, 1-4, plugged\n";
    EXPECT_EQ(one({{"serial", "\"\""}}), line);
    EXPECT_EQ(one({{"serial", "\"\\u0000A1\""}}), line);
}

TEST(DeviceList, NumbersAreNarrowed) {
    EXPECT_EQ(one({{"vid", "70000"}, {"pid", "0"}, {"rev", "65535"}}),
              "1:3 - 1170:0000:ffff - Keyboard, 1-4, A1, plugged\n");
    EXPECT_EQ(one({{"id", "4294967299"}}), kLine);
    EXPECT_EQ(one({{"id", "4294967295"}}),
              "1:4294967295 - 046d:c31c:6402 - Keyboard, 1-4, A1, plugged\n");
    EXPECT_EQ(one({{"id", "3.99"}}), kLine);
    EXPECT_EQ(deviceList(array({server({device()}, {{"id", "4294967297"}})})), kLine);
}

TEST(DeviceList, TrueAndFalseAreNumbers) {
    EXPECT_EQ(one({{"id", "true"}, {"vid", "false"}, {"pid", "true"}}),
              "1:1 - 0000:0001:6402 - Keyboard, 1-4, A1, plugged\n");
}

TEST(DeviceList, TextIsPrintedByteForByte) {
    EXPECT_EQ(one({{"name", "\"%s\\\"\\n\\u00e9\""}, {"port", "\"\""}, {"state", "\"x, y\""}}),
              "1:3 - 046d:c31c:6402 - %s\"\n\xc3\xa9, , A1, x, y\n");
}

TEST(DeviceList, TextEndsAtItsFirstNul) {
    EXPECT_EQ(one({{"name", "\"Key\\u0000board\""}, {"serial", "\"A\\u00001\""}}),
              "1:3 - 046d:c31c:6402 - Key, 1-4, A, plugged\n");
}

TEST(DeviceList, LongTextIsPrintedWhole) {
    const std::string name(100'000, 'n');
    EXPECT_EQ(one({{"name", "\"" + name + "\""}}),
              "1:3 - 046d:c31c:6402 - " + name + ", 1-4, A1, plugged\n");
}

TEST(DeviceList, TheAddressPlaysNoPart) {
    for (const char* address : {"", "null", "5", "\"5\"", "{}"})
        EXPECT_EQ(one({{"addr", address}}), kLine) << address;
}

TEST(DeviceList, AMemberThatIsMissingOrOfAnotherTypeLeavesTheDeviceOut) {
    for (const char* number : {"id", "vid", "pid", "rev"})
        for (const char* value : {"", "null", "\"1\"", "[]", "{}"})
            EXPECT_EQ(one({{number, value}}), "") << number << " " << value;
    for (const char* text : {"name", "port", "serial", "state"})
        for (const char* value : {"", "null", "1", "true", "[]", "{}"})
            EXPECT_EQ(one({{text, value}}), "") << text << " " << value;
}

TEST(DeviceList, WhatIsNoObjectIsLeftOut) {
    EXPECT_EQ(
        deviceList(array({"1", "null", server({"null", "[]", device(), "\"x\"", "7"}), "[]"})),
        kLine);
}

TEST(DeviceList, AServerWithoutIdOrDevicesContributesNothing) {
    const auto with = [](const Change& change) {
        return deviceList(array({server({device()}, {change, {"host", "\"bad\""}}),
                                 server({device({{"id", "9"}})}, {{"id", "2"}})}));
    };
    const std::string other = "2:9 - 046d:c31c:6402 - Keyboard, 1-4, A1, plugged\n";
    for (const char* value : {"", "null", "\"1\"", "[]"})
        EXPECT_EQ(with({"id", value}), other) << value;
    for (const char* value : {"", "null", "\"1\"", "{}", "3"})
        EXPECT_EQ(with({"devices", value}), other) << value;
}

TEST(DeviceList, TheServersOtherMembersPlayNoPart) {
    EXPECT_EQ(
        deviceList(array({server({device()}, {{"host", ""}, {"port", "\"x\""}, {"state", "1"}})})),
        kLine);
}

TEST(DeviceList, PluggedOnlyKeepsTheExactWord) {
    const auto kept = [](const std::string& state) {
        return !deviceList(array({server({device({{"state", "\"" + state + "\""}})})}), false, true,
                           true)
                    .empty();
    };
    EXPECT_TRUE(kept("plugged"));
    for (const char* state :
         {"Plugged", "plugged ", " plugged", "unplugged", "plug", "", "plugged\\u0000"})
        EXPECT_FALSE(kept(state)) << state;
}

TEST(DeviceList, WithoutPluggedOnlyEveryStateIsListed) {
    EXPECT_EQ(one({{"state", "\"\""}}), "1:3 - 046d:c31c:6402 - Keyboard, 1-4, A1, \n");
}

TEST(DeviceList, IsSortedByServerAndDevice) {
    const std::string servers = array(
        {server({named("1", "x")}, {{"id", "2"}}), server({named("5", "x"), named("3", "x")})});
    EXPECT_EQ(brief(deviceList(servers)), "1:3 x\n1:5 x\n2:1 x\n");
}

TEST(DeviceList, IdsAreComparedAsUnsignedNumbers) {
    const std::string servers = array(
        {server({named("10", "x"), named("9", "x"), named("-1", "x"), named("4294967297", "x")}),
         server({named("0", "x")}, {{"id", "-1"}}), server({named("0", "x")}, {{"id", "10"}}),
         server({named("0", "x")}, {{"id", "9"}})});
    EXPECT_EQ(brief(deviceList(servers)),
              "1:1 x\n1:9 x\n1:10 x\n1:4294967295 x\n9:0 x\n10:0 x\n4294967295:0 x\n");
}

TEST(DeviceList, AscendingCountsForNamesOnly) {
    const std::string servers = array({server({named("2", "a"), named("1", "b")})});
    EXPECT_EQ(deviceList(servers, false, false), deviceList(servers, false, true));
}

TEST(DeviceList, NamesAreComparedByCharacterCode) {
    const std::string servers =
        array({server({named("1", "b"), named("2", "B"), named("3", "Z"), named("4", "a"),
                       named("5", "a10"), named("6", "a9"), named("7", ""), named("8", "\xc3\xa9"),
                       named("9", "\xf0\x9f\x98\x80"), named("10", "\xef\xbf\xbd")})});
    EXPECT_EQ(brief(deviceList(servers, true, true)),
              "1:7 \n1:2 B\n1:3 Z\n1:4 a\n1:5 a10\n1:6 a9\n1:1 b\n1:8 \xc3\xa9\n"
              "1:10 \xef\xbf\xbd\n1:9 \xf0\x9f\x98\x80\n");
    EXPECT_EQ(brief(deviceList(servers, true, false)),
              "1:9 \xf0\x9f\x98\x80\n1:10 \xef\xbf\xbd\n1:8 \xc3\xa9\n1:1 b\n1:6 a9\n1:5 a10\n"
              "1:4 a\n1:3 Z\n1:2 B\n1:7 \n");
}

TEST(DeviceList, EqualDevicesKeepTheOrderOfTheReply) {
    const std::string servers = array(
        {server({named("5", "x")}, {{"id", "2"}}), server({named("7", "x"), named("6", "x")})});
    EXPECT_EQ(brief(deviceList(servers, true, true)), "2:5 x\n1:7 x\n1:6 x\n");
    EXPECT_EQ(brief(deviceList(servers, true, false)), "2:5 x\n1:7 x\n1:6 x\n");
    EXPECT_EQ(brief(deviceList(array({server({named("1", "b"), named("1", "a")})}))),
              "1:1 b\n1:1 a\n");
}

TEST(DeviceList, SortsAndFiltersTogether) {
    const std::string servers = array(
        {server({named("1", "b"), device({{"id", "2"}, {"state", "\"free\""}}), named("3", "a")})});
    EXPECT_EQ(brief(deviceList(servers, true, true, true)), "1:3 a\n1:1 b\n");
}

TEST(DeviceList, DevicesOfServersWithEqualIdsAreSortedTogether) {
    const std::string servers =
        array({server({named("5", "a"), named("2", "b")}), server({named("1", "c")}, {{"id", "2"}}),
               server({named("2", "d"), named("1", "e")})});
    EXPECT_EQ(brief(deviceList(servers)), "1:1 e\n1:2 b\n1:2 d\n1:5 a\n2:1 c\n");
    EXPECT_EQ(brief(deviceList(servers, false, true, true)), brief(deviceList(servers)));
}

TEST(DeviceList, NamesThatBeginAlikeAreComparedToTheirEnd) {
    const std::string servers = array({server(
        {named("1", "Keyboard 10"), named("2", "Keyboard"), named("3", "Keyboard 2"),
         named("4", "Keyboar"), named("5", "Keyboar\\u0000"), named("6", "Keyboar\\u0000x")})});
    EXPECT_EQ(brief(deviceList(servers, true, true)),
              "1:4 Keyboar\n1:5 Keyboar\n1:6 Keyboar\n1:2 Keyboard\n1:1 Keyboard 10\n"
              "1:3 Keyboard 2\n");
    EXPECT_EQ(brief(deviceList(servers, true, false)),
              "1:3 Keyboard 2\n1:1 Keyboard 10\n1:2 Keyboard\n1:6 Keyboar\n1:5 Keyboar\n"
              "1:4 Keyboar\n");
}

TEST(DeviceList, TheOrderOfTheMembersPlaysNoPart) {
    const std::string servers =
        R"([{"devices":[{"state":"plugged","x":1,"serial":"A1","port":"1-4","rev":25602,)"
        R"("name":"Keyboard","pid":49948,"vid":1133,"id":3}],"id":1}])";
    EXPECT_EQ(deviceList(servers), kLine);
}

}  // namespace
