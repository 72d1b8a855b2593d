#include "sim/inventory_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

std::string errorOf(std::string_view text) {
    std::string error;
    EXPECT_FALSE(parseInventory(text, error)) << text;
    return error;
}

std::string withServer(const std::string& members) {
    return R"({"servers":[{"id":1,"host":"a"},{)" + members + "}]}";
}

std::string withDevice(const std::string& members) {
    return withServer(R"("id":2,"host":"b","devices":[{)" + members + "}]");
}

TEST(InventoryFile, ReadsEveryMember) {
    std::string error;
    const auto inventory = parseInventory(
        R"({"servers":[{"id":4294967295,"host":"büro","port":5,"state":"connected","devices":[
            {"id":7,"name":"Maus","vid":1133,"pid":65535,"rev":3,"port":"1-2","serial":"S",
             "state":"plugged","addr":null}]}]})",
        error);
    ASSERT_TRUE(inventory) << error;
    ASSERT_EQ(inventory->servers().size(), 1U);
    const Server& server = inventory->servers()[0];
    EXPECT_EQ(server.id, 4294967295U);
    EXPECT_EQ(server.host, "büro");
    EXPECT_EQ(server.port, 5);
    EXPECT_EQ(server.state, ServerState::Connected);
    ASSERT_EQ(server.devices.size(), 1U);
    const Device& device = server.devices[0];
    EXPECT_EQ(device.id, 7U);
    EXPECT_EQ(device.name, "Maus");
    EXPECT_EQ(device.vid, 1133);
    EXPECT_EQ(device.pid, 65535);
    EXPECT_EQ(device.rev, 3);
    EXPECT_EQ(device.port, "1-2");
    EXPECT_EQ(device.serial, "S");
    EXPECT_TRUE(device.plugged);
    EXPECT_TRUE(device.replug);
}

TEST(InventoryFile, MembersMayBeLeftOut) {
    std::string error;
    const auto inventory = parseInventory(
        R"({"servers":[{"id":1,"host":"a","devices":[
            {"id":7,"name":"n","vid":1,"pid":2,"port":"p"}]},{"id":2,"host":"b"}]})",
        error);
    ASSERT_TRUE(inventory) << error;
    const Server& server = inventory->servers().at(0);
    EXPECT_EQ(server.port, 33000);
    EXPECT_EQ(server.state, ServerState::Connected);
    EXPECT_EQ(server.devices.at(0).rev, 0);
    EXPECT_EQ(server.devices.at(0).serial, "");
    EXPECT_FALSE(server.devices.at(0).plugged);
    EXPECT_TRUE(inventory->servers().at(1).devices.empty());
}

TEST(InventoryFile, EveryStateOfAServerIsRead) {
    for (size_t state = 0; state < kServerStateWords.size(); ++state) {
        std::string error;
        const auto inventory =
            parseInventory(withServer(R"("id":2,"host":"b","state":")" +
                                      std::string(kServerStateWords[state]) + '"'),
                           error);
        ASSERT_TRUE(inventory) << error;
        EXPECT_EQ(inventory->servers().at(1).state, static_cast<ServerState>(state));
    }
}

TEST(InventoryFile, NoServersIsAnInventory) {
    std::string error;
    const auto inventory = parseInventory(R"({"servers":[]})", error);
    ASSERT_TRUE(inventory) << error;
    EXPECT_TRUE(inventory->servers().empty());
}

TEST(InventoryFile, TextThatIsNotJsonIsToldWithItsLine) {
    EXPECT_TRUE(errorOf("{\n\n x").starts_with("not JSON, at line 3: ")) << errorOf("{\n\n x");
    EXPECT_TRUE(errorOf("").starts_with("not JSON, at line 1: "));
    EXPECT_TRUE(errorOf("{\"servers\":[]} x").starts_with("not JSON, at line 1: "));
    EXPECT_TRUE(
        errorOf("{\"servers\":[{\"host\":\"\xff\"}]}").starts_with("not JSON, at line 1: "));
}

TEST(InventoryFile, TopLevelMustBeAnObjectWithServers) {
    EXPECT_EQ(errorOf("[]"), "must be an object");
    EXPECT_EQ(errorOf("7"), "must be an object");
    EXPECT_EQ(errorOf("{}"), "\"servers\" is missing");
    EXPECT_EQ(errorOf(R"({"servers":{}})"), "\"servers\" must be an array");
    EXPECT_EQ(errorOf(R"({"servers":[],"sevrers":[]})"), "unknown key \"sevrers\"");
}

TEST(InventoryFile, WrongServerIsToldWithItsPlace) {
    EXPECT_EQ(errorOf(R"({"servers":[{"id":1,"host":"a"},8]})"), "servers[1]: must be an object");
    EXPECT_EQ(errorOf(withServer(R"("host":"b")")), "servers[1]: \"id\" is missing");
    EXPECT_EQ(errorOf(withServer(R"("id":"2","host":"b")")),
              "servers[1]: \"id\" must be an integer from 0 to 4294967295");
    EXPECT_EQ(errorOf(withServer(R"("id":4294967296,"host":"b")")),
              "servers[1]: \"id\" must be an integer from 0 to 4294967295");
    EXPECT_EQ(errorOf(withServer(R"("id":-1,"host":"b")")),
              "servers[1]: \"id\" must be an integer from 0 to 4294967295");
    EXPECT_EQ(errorOf(withServer(R"("id":1.5,"host":"b")")),
              "servers[1]: \"id\" must be an integer from 0 to 4294967295");
    EXPECT_EQ(errorOf(withServer(R"("id":2)")), "servers[1]: \"host\" is missing");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":3)")), "servers[1]: \"host\" must be a string");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"")")), "servers[1]: \"host\" must not be empty");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","port":65536)")),
              "servers[1]: \"port\" must be an integer from 0 to 65535");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","state":"Connected")")),
              "servers[1]: \"state\" must be \"connecting\", \"connected\", \"disconnecting\", "
              "\"disconnected\" or \"failed\"");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","devices":null)")),
              "servers[1]: \"devices\" must be an array");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","hots":1)")),
              "servers[1]: unknown key \"hots\"");
}

TEST(InventoryFile, WrongDeviceIsToldWithItsPlace) {
    const std::string place = "servers[1].devices[0]: ";
    const std::string good = R"("id":1,"name":"n","pid":2,"port":"p")";
    EXPECT_EQ(errorOf(withDevice(good)), place + "\"vid\" is missing");
    EXPECT_EQ(errorOf(withDevice(good + R"(,"vid":65536)")),
              place + "\"vid\" must be an integer from 0 to 65535");
    EXPECT_EQ(errorOf(withDevice(good + R"(,"vid":true)")),
              place + "\"vid\" must be an integer from 0 to 65535");
    EXPECT_EQ(errorOf(withDevice(good + R"(,"vid":1,"serial":null)")),
              place + "\"serial\" must be a string");
    EXPECT_EQ(errorOf(withDevice(good + R"(,"vid":1,"state":"in")")),
              place + "\"state\" must be \"plugged\" or \"unplugged\"");
    EXPECT_EQ(errorOf(withDevice(good + R"(,"vid":1,"colour":"red")")),
              place + "unknown key \"colour\"");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","devices":[[]])")),
              place + "must be an object");
}

TEST(InventoryFile, WhatMustBeUniqueIsTold) {
    EXPECT_EQ(errorOf(withServer(R"("id":1,"host":"b")")), "servers[1]: the id 1 is in use twice");
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"a")")),
              "servers[1]: the address a:33000 is in use twice");
    const std::string device = R"({"id":1,"name":"n","vid":1,"pid":2,"port":"p"})";
    EXPECT_EQ(errorOf(withServer(R"("id":2,"host":"b","devices":[)" + device + ',' + device + ']')),
              "servers[1].devices[1]: the id 1 is in use twice");
}

TEST(InventoryFile, FirstOfSeveralErrorsIsTold) {
    EXPECT_EQ(errorOf(R"({"servers":[{"id":1},{"id":"x"}]})"), "servers[0]: \"host\" is missing");
}

TEST(InventoryFile, FileThatCannotBeReadIsToldWithTheReason) {
    std::string error;
    EXPECT_FALSE(readInventoryFile("/nonexistent/inventory", error));
    EXPECT_EQ(error, "cannot read the inventory /nonexistent/inventory: No such file or directory");
    EXPECT_FALSE(readInventoryFile("/", error));
    EXPECT_EQ(error, "cannot read the inventory /: Is a directory");
}

class InventoryFileOnDisk : public testing::Test {
protected:
    void SetUp() override {
        std::string name = std::filesystem::temp_directory_path() / "inventoryXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        path = directory / "inventory.json";
    }
    void TearDown() override { std::filesystem::remove_all(directory); }

    std::filesystem::path directory;
    std::filesystem::path path;
};

TEST_F(InventoryFileOnDisk, IsRead) {
    std::ofstream(path) << R"({"servers":[{"id":3,"host":"h"}]})";
    std::string error;
    const auto inventory = readInventoryFile(path, error);
    ASSERT_TRUE(inventory) << error;
    EXPECT_EQ(inventory->servers().at(0).id, 3U);
}

TEST_F(InventoryFileOnDisk, IsNamedWhenItIsWrong) {
    std::ofstream(path) << "{}";
    std::string error;
    EXPECT_FALSE(readInventoryFile(path, error));
    EXPECT_EQ(error, "the inventory " + path.string() + " is wrong: \"servers\" is missing");
}

TEST_F(InventoryFileOnDisk, MayBeLargerThanOnePiece) {
    std::ofstream(path) << std::string(200'000, ' ') << R"({"servers":[{"id":3,"host":"h"}]})";
    std::string error;
    EXPECT_TRUE(readInventoryFile(path, error)) << error;
}

}  // namespace
