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
    return {
        .id = id, .host = "box" + std::to_string(id), .port = 33000, .devices = std::move(devices)};
}

// Completes every step, and those that follow.
void settle(Inventory& inventory) {
    while (const auto step = inventory.takeBegunStep())
        inventory.advance(*step);
}

// The step that must have begun.
Inventory::Step takeStep(Inventory& inventory) {
    const auto step = inventory.takeBegunStep();
    EXPECT_TRUE(step);
    return step.value_or(Inventory::Step{});
}

ServerState stateOf(const Inventory& inventory) {
    return inventory.servers().at(0).state;
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
    EXPECT_EQ(stateOf(inventory), ServerState::Connecting);
}

TEST(Inventory, NewServerOffersOneDeviceWithASerialNumberAndOneWithout) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("box", 5).status, Status::Ok);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    const std::vector<Device>& devices = inventory.servers().at(0).devices;
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0].serial, "FD1");
    EXPECT_EQ(devices[1].serial, "");
    EXPECT_FALSE(devices[0].plugged);
    EXPECT_TRUE(devices[0].present && devices[1].present);
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

TEST(Inventory, DisconnectUnplugsAtOnceAndReconnectPlugsAgainWhenItCompletes) {
    Inventory inventory({server(1, {device(1)})});
    ASSERT_EQ(inventory.plug(1U, 1, false), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnected);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Connecting);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, DeviceThatWasPluggedOnceStaysUnpluggedAfterReconnect) {
    Inventory inventory({server(1, {device(1)})});
    ASSERT_EQ(inventory.plug(1U, 1, true), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, ReconnectOfAConnectedServerDisconnectsItFirst) {
    Inventory inventory({server(1, {device(1), device(2)})});
    ASSERT_EQ(inventory.plug(1U, 1, true), Status::Ok);
    ASSERT_EQ(inventory.plug(1U, 2, false), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
    EXPECT_FALSE(inventory.servers()[0].devices[1].plugged);
    inventory.advance(takeStep(inventory));
    EXPECT_EQ(stateOf(inventory), ServerState::Connecting);
    inventory.advance(takeStep(inventory));
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_FALSE(inventory.servers()[0].devices[0].plugged);
    EXPECT_TRUE(inventory.servers()[0].devices[1].plugged);
}

TEST(Inventory, SecondDisconnectKeepsWhatTheReconnectWillPlug) {
    Inventory inventory({server(1, {device(1, true)})});
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnected);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, SecondReconnectChangesNothing) {
    Inventory inventory({server(1, {device(1, true)})});
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    const Inventory::Step disconnecting = takeStep(inventory);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(inventory.takeBegunStep());
    inventory.advance(disconnecting);
    const Inventory::Step connecting = takeStep(inventory);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_FALSE(inventory.takeBegunStep());
    inventory.advance(connecting);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, DisconnectWhileConnectingBreaksThatOff) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("box", 5).status, Status::Ok);
    const Inventory::Step connecting = takeStep(inventory);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
    inventory.advance(connecting);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnected);
    inventory.advance(connecting);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnected);
}

TEST(Inventory, LaterOfDisconnectAndReconnectCountsWhileDisconnecting) {
    Inventory inventory({server(1)});
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnected);
}

TEST(Inventory, StepOfARemovedServerDoesNothing) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("box", 5).id, 1U);
    const Inventory::Step connecting = takeStep(inventory);
    ASSERT_EQ(inventory.act(ServerAction::Remove, 1U), Status::Ok);
    inventory.advance(connecting);
    EXPECT_TRUE(inventory.servers().empty());
    ASSERT_EQ(inventory.add("box", 5).id, 2U);
    inventory.advance(connecting);
    EXPECT_EQ(stateOf(inventory), ServerState::Connecting);
}

TEST(Inventory, StepIsCompletedOnce) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("box", 5).id, 1U);
    const Inventory::Step connecting = takeStep(inventory);
    inventory.advance(connecting);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    inventory.advance(connecting);
    EXPECT_EQ(stateOf(inventory), ServerState::Disconnecting);
}

TEST(Inventory, EveryServerThatHasBegunAStepIsTold) {
    Inventory inventory({server(1), server(2), server(3)});
    EXPECT_FALSE(inventory.takeBegunStep());
    ASSERT_EQ(inventory.act(ServerAction::Disconnect, 3U), Status::Ok);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    std::set<uint32_t> begun;
    while (const auto step = inventory.takeBegunStep())
        EXPECT_TRUE(begun.insert(step->server).second);
    EXPECT_EQ(begun, (std::set<uint32_t>{1, 3}));
}

TEST(Inventory, SameServerIsAlreadyThereWhileItConnectsAndWhenItHasFailed) {
    Inventory inventory({});
    ASSERT_EQ(inventory.add("unreachable.example", 5).status, Status::Ok);
    EXPECT_EQ(inventory.add("unreachable.example", 5).status, Status::Already);
    settle(inventory);
    EXPECT_EQ(inventory.add("unreachable.example", 5).status, Status::Already);
    EXPECT_EQ(inventory.servers().size(), 1U);
}

TEST(Inventory, UnreachableServersFailWheneverTheyConnect) {
    for (const char* host : {"unreachable.example", "a.unreachable.example"}) {
        Inventory inventory({});
        ASSERT_EQ(inventory.add(host, 5).status, Status::Ok);
        settle(inventory);
        EXPECT_EQ(stateOf(inventory), ServerState::Failed) << host;
        EXPECT_FALSE(firstDevice(inventory).present) << host;
        EXPECT_EQ(inventory.plug(1U, 1, false), Status::NotFound) << host;
        ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
        EXPECT_EQ(stateOf(inventory), ServerState::Connecting) << host;
        settle(inventory);
        EXPECT_EQ(stateOf(inventory), ServerState::Failed) << host;
        ASSERT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
        EXPECT_EQ(stateOf(inventory), ServerState::Disconnected) << host;
    }
}

TEST(Inventory, OtherHostsAreReachable) {
    for (const char* host : {"unreachable.example.org", "notunreachable.example", "unreachable",
                             ".example", "unreachable.example."}) {
        Inventory inventory({});
        ASSERT_EQ(inventory.add(host, 5).status, Status::Ok);
        settle(inventory);
        EXPECT_EQ(stateOf(inventory), ServerState::Connected) << host;
    }
}

TEST(Inventory, ServersThatStartInAPassingStateGoOn) {
    Server connecting = server(1, {device(1, true)});
    connecting.state = ServerState::Connecting;
    Server disconnecting = server(2);
    disconnecting.state = ServerState::Disconnecting;
    Inventory inventory({connecting, disconnecting});
    EXPECT_FALSE(firstDevice(inventory).plugged);
    settle(inventory);
    EXPECT_EQ(inventory.servers()[0].state, ServerState::Connected);
    EXPECT_TRUE(firstDevice(inventory).plugged);
    EXPECT_EQ(inventory.servers()[1].state, ServerState::Disconnected);
}

TEST(Inventory, DeviceOfAServerThatIsNotConnectedCannotBePlugged) {
    for (const ServerState state : {ServerState::Connecting, ServerState::Disconnecting,
                                    ServerState::Disconnected, ServerState::Failed}) {
        Server apart = server(1, {device(1)});
        apart.state = state;
        Inventory inventory({apart});
        EXPECT_EQ(inventory.plug(1U, 1, false), Status::NotFound) << wordOf(state);
        EXPECT_EQ(inventory.unplug(1U, 1), Status::Already) << wordOf(state);
        EXPECT_FALSE(firstDevice(inventory).plugged) << wordOf(state);
    }
}

TEST(Inventory, UnplugWhileDisconnectedPreventsTheReplug) {
    Inventory inventory({server(1, {device(1, true)})});
    ASSERT_EQ(inventory.act(ServerAction::Disconnect, 1U), Status::Ok);
    EXPECT_EQ(inventory.unplug(1U, 1), Status::Already);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, UnpluggedDeviceIsNotPluggedByReconnect) {
    Inventory inventory({server(1, {device(1, true)})});
    ASSERT_EQ(inventory.unplug(1U, 1), Status::Ok);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_EQ(stateOf(inventory), ServerState::Connected);
    EXPECT_FALSE(firstDevice(inventory).plugged);
}

TEST(Inventory, DevicePluggedInADisconnectedServerWaitsForTheReconnect) {
    Server disconnected = server(1, {device(1, true)});
    disconnected.state = ServerState::Disconnected;
    Inventory inventory({disconnected});
    EXPECT_FALSE(firstDevice(inventory).plugged);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, DeviceThatIsGoneIsFoundByNothing) {
    Inventory inventory({server(1, {device(1, true)})});
    inventory.comeOrGo(0);
    EXPECT_FALSE(firstDevice(inventory).present);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    EXPECT_EQ(inventory.plug(1U, 1, false), Status::NotFound);
    EXPECT_EQ(inventory.unplug(1U, 1), Status::NotFound);
}

TEST(Inventory, DeviceThatComesBackIsPluggedAgainUnlessItWasPluggedOnce) {
    for (const bool once : {false, true}) {
        Inventory inventory({server(1, {device(5)})});
        ASSERT_EQ(inventory.plug(1U, 5, once), Status::Ok);
        inventory.comeOrGo(0);
        inventory.comeOrGo(0);
        EXPECT_TRUE(firstDevice(inventory).present);
        EXPECT_EQ(firstDevice(inventory).id, 5U);
        EXPECT_EQ(firstDevice(inventory).plugged, !once);
    }
}

TEST(Inventory, DeviceThatIsGoneStaysSoOverAReconnect) {
    Inventory inventory({server(1, {device(1, true)})});
    inventory.comeOrGo(0);
    ASSERT_EQ(inventory.act(ServerAction::Reconnect, 1U), Status::Ok);
    settle(inventory);
    EXPECT_FALSE(firstDevice(inventory).present);
    EXPECT_FALSE(firstDevice(inventory).plugged);
    inventory.comeOrGo(0);
    EXPECT_TRUE(firstDevice(inventory).plugged);
}

TEST(Inventory, OnlyDevicesOfConnectedServersComeAndGo) {
    Server disconnected = server(1, {device(1), device(2)});
    disconnected.state = ServerState::Disconnected;
    Inventory inventory({disconnected, server(2), server(3, {device(1), device(2)})});
    EXPECT_EQ(inventory.countConnectedDevices(), 2U);
    inventory.comeOrGo(1);
    EXPECT_FALSE(inventory.servers()[2].devices[1].present);
    EXPECT_TRUE(inventory.servers()[2].devices[0].present);
    EXPECT_EQ(inventory.countConnectedDevices(), 2U);
    inventory.comeOrGo(2);
    EXPECT_TRUE(inventory.servers()[0].devices[0].present);
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
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
        if (known.state == ServerState::Connected) connected = true;
        if (known.state == ServerState::Disconnected) disconnected = true;
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
