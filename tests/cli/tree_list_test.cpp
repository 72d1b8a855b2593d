#include "cli/tree_list.h"

#include <gtest/gtest.h>

#include "tests/cli/report_fixture.h"

namespace {

constexpr const char* kServer = "1 - box:33000 - connected\n";
constexpr const char* kDevice = " 3\t046d:c31c:6402\t1-4\tKeyboard /plugged, A1/\n";

std::string one(const std::vector<Change>& changes) {
    return treeList(array({server({device(changes)})}));
}

// A server between two others, as which it is printed or not.
std::string between(const std::vector<Change>& changes) {
    return treeList(array({server({}, {{"id", "0"}}), server({device()}, changes),
                           server({device()}, {{"id", "7"}})}));
}

std::string aroundIt(const std::string& middle) {
    return "0 - box:33000 - connected\n" + middle + "7 - box:33000 - connected\n" + kDevice;
}

TEST(TreeList, AServerIsALineAndSoIsEachDevice) {
    EXPECT_EQ(one({}), std::string(kServer) + kDevice);
}

TEST(TreeList, NoServersPrintNothing) {
    EXPECT_EQ(treeList("[]"), "");
    EXPECT_EQ(treeList("[]", true), "");
    EXPECT_EQ(treeList("[1,null,\"x\",[],{}]"), "");
}

TEST(TreeList, AServerWithoutDevicesIsItsLine) {
    EXPECT_EQ(treeList(array({server()})), kServer);
}

TEST(TreeList, ServersOnlyPrintsNoDevices) {
    EXPECT_EQ(treeList(array({server({device()}), server({}, {{"id", "2"}})}), true),
              "1 - box:33000 - connected\n2 - box:33000 - connected\n");
}

TEST(TreeList, ServersOnlyStillWantsTheDevices) {
    EXPECT_EQ(
        treeList(array({server({}, {{"devices", ""}}), server({}, {{"devices", "{}"}})}), true),
        "");
}

TEST(TreeList, NumbersAreNarrowed) {
    EXPECT_EQ(one({{"id", "4294967299"}, {"vid", "70000"}, {"pid", "0"}, {"rev", "65535"}}),
              std::string(kServer) + " 3\t1170:0000:ffff\t1-4\tKeyboard /plugged, A1/\n");
    EXPECT_EQ(treeList(array({server({}, {{"id", "-1"}, {"port", "65536"}})})),
              "4294967295 - box:0 - connected\n");
    EXPECT_EQ(treeList(array({server({}, {{"id", "true"}, {"port", "2.9"}})})),
              "1 - box:2 - connected\n");
}

TEST(TreeList, WithoutASerialNumberTheStateStandsAlone) {
    const std::string line = " 3\t046d:c31c:6402\t1-4\tKeyboard /plugged/\n";
    EXPECT_EQ(one({{"serial", "\"\""}}), kServer + line);
    EXPECT_EQ(one({{"serial", "\"\\u0000A1\""}}), kServer + line);
}

TEST(TreeList, TextIsPrintedByteForByteUpToItsFirstNul) {
    EXPECT_EQ(
        treeList(array({server({}, {{"host", "\"%s\\u00e9\""}, {"state", "\"a\\u0000b\""}})})),
        "1 - %s\xc3\xa9:33000 - a\n");
    EXPECT_EQ(one({{"name", "\"\\t\\u0000x\""}, {"port", "\"\""}, {"state", "\"/\""}}),
              std::string(kServer) + " 3\t046d:c31c:6402\t\t\t //, A1/\n");
}

TEST(TreeList, TheAddressPlaysNoPart) {
    for (const char* address : {"", "null", "5", "\"5\"", "{}"})
        EXPECT_EQ(one({{"addr", address}}), std::string(kServer) + kDevice) << address;
}

TEST(TreeList, AMemberThatIsMissingOrOfAnotherTypeLeavesTheDeviceOut) {
    for (const char* number : {"id", "vid", "pid", "rev"})
        for (const char* value : {"", "null", "\"1\"", "[]", "{}"})
            EXPECT_EQ(one({{number, value}}), kServer) << number << " " << value;
    for (const char* text : {"name", "port", "serial", "state"})
        for (const char* value : {"", "null", "1", "true", "[]", "{}"})
            EXPECT_EQ(one({{text, value}}), kServer) << text << " " << value;
}

TEST(TreeList, AMemberThatIsMissingOrOfAnotherTypeLeavesTheServerOut) {
    EXPECT_EQ(between({}), aroundIt(std::string(kServer) + kDevice));
    for (const char* number : {"id", "port"})
        for (const char* value : {"", "null", "\"1\"", "[]", "{}"})
            EXPECT_EQ(between({{number, value}}), aroundIt("")) << number << " " << value;
    for (const char* text : {"host", "state"})
        for (const char* value : {"", "null", "1", "true", "[]", "{}"})
            EXPECT_EQ(between({{text, value}}), aroundIt("")) << text << " " << value;
    for (const char* value : {"", "null", "1", "\"x\"", "{}"})
        EXPECT_EQ(between({{"devices", value}}), aroundIt("")) << value;
}

TEST(TreeList, WhatIsNoObjectIsLeftOut) {
    EXPECT_EQ(treeList(array({"1", "null", server({"null", "[]", device(), "\"x\"", "7"}), "[]"})),
              std::string(kServer) + kDevice);
}

TEST(TreeList, ServersAreSortedById) {
    const auto numbered = [](const char* id) { return server({}, {{"id", id}}); };
    EXPECT_EQ(treeList(array({numbered("10"), "null", numbered("-1"), numbered("9"), "{}",
                              numbered("4294967297")})),
              "1 - box:33000 - connected\n"
              "9 - box:33000 - connected\n"
              "10 - box:33000 - connected\n"
              "4294967295 - box:33000 - connected\n");
}

TEST(TreeList, DevicesAreSortedByIdWithinTheirServer) {
    const auto numbered = [](const char* id) {
        return device({{"id", id}, {"name", "\"\""}, {"serial", "\"\""}});
    };
    EXPECT_EQ(
        treeList(array({server({numbered("2")}, {{"id", "5"}}),
                        server({numbered("10"), "null", numbered("9"), "{}", numbered("1")})})),
        "1 - box:33000 - connected\n"
        " 1\t046d:c31c:6402\t1-4\t /plugged/\n"
        " 9\t046d:c31c:6402\t1-4\t /plugged/\n"
        " 10\t046d:c31c:6402\t1-4\t /plugged/\n"
        "5 - box:33000 - connected\n"
        " 2\t046d:c31c:6402\t1-4\t /plugged/\n");
}

TEST(TreeList, EqualIdsKeepTheOrderOfTheReply) {
    EXPECT_EQ(treeList(array({server({}, {{"host", "\"b\""}}), server({}, {{"host", "\"a\""}})})),
              "1 - b:33000 - connected\n1 - a:33000 - connected\n");
}

TEST(TreeList, TheOrderOfTheMembersPlaysNoPart) {
    const std::string record =
        R"({"state":"plugged","x":1,"serial":"A1","port":"1-4","rev":25602,"name":"Keyboard",)"
        R"("pid":49948,"vid":1133,"id":3})";
    EXPECT_EQ(treeList(R"([{"devices":[)" + record +
                       R"(],"state":"connected","host":"box","x":{},"port":33000,"id":1}])"),
              treeList(array({server({device()})})));
}

}  // namespace
