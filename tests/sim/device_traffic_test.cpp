#include "sim/device_traffic.h"

#include <gtest/gtest.h>

#include "sim/built_in_inventory.h"

namespace {

constexpr int kEvents = 100;

// The devices that are there, in their order.
std::vector<bool> presence(const Inventory& inventory) {
    std::vector<bool> present;
    for (const Server& server : inventory.servers())
        for (const Device& device : server.devices)
            present.push_back(device.present);
    return present;
}

std::vector<std::vector<bool>> course(uint32_t seed) {
    Inventory inventory = builtInInventory();
    DeviceTraffic traffic(seed);
    std::vector<std::vector<bool>> all{presence(inventory)};
    for (int i = 0; i < kEvents; ++i) {
        traffic.happen(inventory);
        all.push_back(presence(inventory));
    }
    return all;
}

TEST(DeviceTraffic, EachEventConcernsOneDevice) {
    const auto all = course(1);
    for (size_t i = 1; i < all.size(); ++i) {
        size_t changes = 0;
        for (size_t device = 0; device < all[i].size(); ++device)
            if (all[i][device] != all[i - 1][device]) ++changes;
        EXPECT_EQ(changes, 1U) << i;
    }
}

TEST(DeviceTraffic, SameSeedIsTheSameCourse) {
    EXPECT_EQ(course(1), course(1));
    EXPECT_EQ(course(0xffffffff), course(0xffffffff));
}

TEST(DeviceTraffic, OtherSeedIsAnotherCourse) {
    EXPECT_NE(course(1), course(2));
}

// 1791095845 and 4282876139 are the first two numbers of the 32-bit Mersenne Twister with seed 1.
TEST(DeviceTraffic, ChoiceIsTheRandomNumberModuloTheDevices) {
    std::vector<Device> devices(7);
    for (uint32_t id = 0; id < devices.size(); ++id)
        devices[id].id = id;
    Inventory inventory({{.id = 1, .host = "box", .port = 1, .devices = devices}});
    DeviceTraffic traffic(1);
    traffic.happen(inventory);
    EXPECT_FALSE(inventory.servers()[0].devices[1791095845 % 7].present);
    traffic.happen(inventory);
    EXPECT_FALSE(inventory.servers()[0].devices[4282876139 % 7].present);
}

TEST(DeviceTraffic, NothingHappensWithoutDevicesOfConnectedServers) {
    Inventory inventory({{.id = 1,
                          .host = "box",
                          .port = 1,
                          .state = ServerState::Disconnected,
                          .devices = std::vector<Device>(1)},
                         {.id = 2, .host = "empty", .port = 1, .devices = {}}});
    DeviceTraffic traffic(1);
    traffic.happen(inventory);
    EXPECT_TRUE(inventory.servers()[0].devices[0].present);
}

}  // namespace
