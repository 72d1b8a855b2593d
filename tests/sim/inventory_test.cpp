#include "sim/inventory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>

#include "sim/built_in_inventory.h"

namespace {

constexpr uint32_t kHighestId = std::numeric_limits<uint32_t>::max();

Device device(uint32_t id, bool plugged = false) {
    return {.id = id,
            .name = "Mouse",
            .vid = 1,
            .pid = 2,
            .rev = 3,
            .port = "1-1",
            .serial = "",
            .plugged = plugged,
            .replug = plugged};
}

Server server(uint32_t id, std::vector<Device> devices = {}) {
    return {.id = id,
            .host = "box" + std::to_string(id),
            .port = 33000,
            .connected = true,
            .devices = std::move(devices)};
}

const Device& firstDevice(const Inventory& inventory) {
    return inventory.servers().at(0).devices.at(0);
}

TEST(Inventory, FirstServerOfAnEmptyOneGetsId1) {
    Inventory inventory({});
    const Inventory::Addition addition = inventory.add("box", 5);
    EXPECT_EQ(addition.status, Status::Ok);
    EXPECT_EQ(addition.id, 1U);
    ASSERT_EQ(inventory.servers().size(), 1U);
    EXPECT_EQ(inventory.servers()[0].host, "box");
    EXPECT_EQ(inventory.servers()[0].port, 5);
    EXPECT_TRUE(inventory.servers()[0].connected);
}

TEST(Inventory, NewServerOffersOneDeviceWithASerialNumberAndOneWithout) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("box", 5).status, Status::Ok);
    const std::vector<Device>& devices = inventory.servers().at(0).devices;
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0].serial, "FD1");
    EXPECT_EQ(devices[1].serial, "");
    EXPECT_FALSE(devices[0].plugged);
}

TEST(Inventory, NewServerGetsTheIdAfterTheHighest) {
    Inventory inventory({server(7), server(3)});
    EXPECT_EQ(inventory.add("new", 5).id, 8U);
}

TEST(Inventory, IdOfARemovedServerIsNotGivenOutAgain) {
    Inventory inventory({server(7)});
    ASSERT_EQ(inventory.act(ServerAction::Remove, 7U), Status::Ok);
    EXPECT_EQ(inventory.add("new", 5).id, 8U);
}

TEST(Inventory, AddFailsWhenTheIdsAreUsedUp) {
    Inventory inventory({server(kHighestId - 1)});
    EXPECT_EQ(inventory.add("last", 5).id, kHighestId);
    EXPECT_EQ(inventory.add("beyond", 5).status, Status::Error);
    EXPECT_EQ(inventory.servers().size(), 2U);
}

TEST(Inventory, SameHostAndPortIsAlreadyThere) {
    Inventory inventory({server(1)});
    EXPECT_EQ(inventory.add("box1", 33000).status, Status::Already);
    EXPECT_EQ(inventory.servers().size(), 1U);
}

TEST(Inventory, SameHostAtAnotherPortIsAnotherServer) {
    Inventory inventory({server(1)});
    EXPECT_EQ(inventory.add("box1", 33001).status, Status::Ok);
    EXPECT_EQ(inventory.add("Box1", 33000).status, Status::Ok);
}

TEST(Inventory, RemovesById) {
    Inventory inventory({server(1), server(2)});
    EXPECT_EQ(inventory.act(ServerAction::Remove, 1U), Status::Ok);
    ASSERT_EQ(inventory.servers().size(), 1U);
    EXPECT_EQ(inventory.servers()[0].id, 2U);
}

TEST(Inventory, RemovesByHostAndPort) {
    Inventory inventory({server(1), server(2)});
    EXPECT_EQ(inventory.act(ServerAction::Remove, ServerAddress{.host = "box2", .port = 33000}),
              Status::Ok);
    ASSERT_EQ(inventory.servers().size(), 1U);
    EXPECT_EQ(inventory.servers()[0].id, 1U);
}

TEST(Inventory, ServerThatIsNotKnownIsNotFoundByAnyOperation) {
    Inventory inventory({server(1, {device(1)})});
    const ServerKey wrongPort = ServerAddress{.host = "box1", .port = 1};
    for (const ServerKey& key : {ServerKey(2U), wrongPort}) {
        EXPECT_EQ(inventory.act(ServerAction::Remove, key), Status::NotFound);
        EXPECT_EQ(inventory.act(ServerAction::Disconnect, key), Status::NotFound);
        EXPECT_EQ(inventory.act(ServerAction::Reconnect, key), Status::NotFound);
        EXPECT_EQ(inventory.plug(key, 1, false), Status::NotFound);
        EXPECT_EQ(inventory.unplug(key, 1), Status::NotFound);
    }
    EXPECT_EQ(inventory.servers().size(), 1U);
}

TEST(Inventory, DeviceThatIsNotKnownIsNotFound) {
    Inventory inventory({server(1, {device(1)})});
    EXPECT_EQ(inventory.plug(1U, 2, false), Status::NotFound);
    EXPECT_EQ(inventory.unplug(1U, 2), Status::NotFound);
}

TEST(Inventory, PlugThenUnplugAndEachTwiceIsAlready) {
    Inventory inventory({server(1, {device(1)})});
    EXPECT_EQ(inventory.plug(1U, 1, false), Status::Ok);
    EXPECT_TRUE(firstDevice(inventory).plugged);
    EXPECT_EQ(inventory.plug(1U, 1, false), Status::Already);
    EXPECT_EQ(inventory.unplug(1U, 1), Status::Ok);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    EXPECT_EQ(inventory.unplug(1U, 1), Status::Already);
}

TEST(Inventory, DisconnectUnplugsAndReconnectPlugsAgain) {
    Inventory inventory({server(1, {device(1)})});
    ASSERT_EQ(inventory.plug(1U, 1, false), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_FALSE(inventory.servers()[0].connected);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_TRUE(inventory.servers()[0].connected);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, DeviceThatWasPluggedOnceStaysUnpluggedAfterReconnect) {
    Inventory inventory({server(1, {device(1)})});
    ASSERT_EQ(inventory.plug(1U, 1, true), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, ReconnectOfAConnectedServerUnplugsWhatWasPluggedOnce) {
    Inventory inventory({server(1, {device(1), device(2)})});
    ASSERT_EQ(inventory.plug(1U, 1, true), Status::Ok);
    ASSERT_EQ(inventory.plug(1U, 2, false), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(inventory.servers()[0].devices[0].plugged);
    EXPECT_TRUE(inventory.servers()[0].devices[1].plugged);
}

TEST(Inventory, SecondDisconnectKeepsWhatTheReconnectWillPlug) {
    Inventory inventory({server(1, {device(1, true)})});
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, DeviceOfADisconnectedServerCannotBePlugged) {
    Inventory inventory({server(1, {device(1)})});
    ASSERT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.plug(1U, 1, false), Status::NotFound);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, UnplugWhileDisconnectedPreventsTheReplug) {
    Inventory inventory({server(1, {device(1, true)})});
    ASSERT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.unplug(1U, 1), Status::Already);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, UnpluggedDeviceIsNotPluggedByReconnect) {
    Inventory inventory({server(1, {device(1, true)})});
    ASSERT_EQ(inventory.unplug(1U, 1), Status::Ok);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, DevicePluggedInADisconnectedServerWaitsForTheReconnect) {
    Server disconnected = server(1, {device(1, true)});
    disconnected.connected = false;
    Inventory inventory({disconnected});
    EXPECT_FALSE(firstDevice(inventory).plugged);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0; });
}

TEST(BuiltInInventory, HasUniqueIdsAndAddresses) {
    const Inventory inventory = builtInInventory();
    std::set<uint32_t> ids;
    std::set<std::pair<std::string, uint16_t>> addresses;
    for (const Server& known : inventory.servers()) {
        EXPECT_TRUE(ids.insert(known.id).second) << known.id;
        EXPECT_TRUE(addresses.emplace(known.host, known.port).second) << known.host;
        std::set<uint32_t> deviceIds;
        for (const Device& offered : known.devices)
            EXPECT_TRUE(deviceIds.insert(offered.id).second) << known.id << ':' << offered.id;
    }
}

TEST(BuiltInInventory, HasAnExampleOfEachKind) {
    bool connected = false;
    bool disconnected = false;
    bool withoutDevices = false;
    bool plugged = false;
    bool unplugged = false;
    bool withSerial = false;
    bool withoutSerial = false;
    bool foreignName = false;
    const Inventory inventory = builtInInventory();
    for (const Server& known : inventory.servers()) {
        (known.connected ? connected : disconnected) = true;
        if (known.devices.empty()) withoutDevices = true;
        for (const Device& offered : known.devices) {
            (offered.plugged ? plugged : unplugged) = true;
            (offered.serial.empty() ? withoutSerial : withSerial) = true;
            if (!isAscii(offered.name)) foreignName = true;
        }
    }
    EXPECT_TRUE(connected && disconnected && withoutDevices);
    EXPECT_TRUE(plugged && unplugged && withSerial && withoutSerial && foreignName);
}

}  // namespace
