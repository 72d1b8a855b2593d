#include "cli/device_id.h"

#include <gtest/gtest.h>

namespace {

struct Ids {
    uint32_t serverId = 77;
    uint32_t deviceId = 88;
    int result;

    explicit Ids(const char* text) : result(arg2deviceId(text, serverId, deviceId)) {}
};

class MalformedDeviceId : public testing::TestWithParam<const char*> {};

TEST_P(MalformedDeviceId, IsRefusedAndWritesNothing) {
    const Ids ids(GetParam());
    EXPECT_EQ(ids.result, -1);
    EXPECT_EQ(ids.serverId, 77U);
    EXPECT_EQ(ids.deviceId, 88U);
}

INSTANTIATE_TEST_SUITE_P(, MalformedDeviceId,
                         testing::Values("", " ", "-1", "+1", " 1", ":", ":7", "3:", "3:x", "3: 7",
                                         "3:-7", "3:+7", "3:7x", "3:7:", "3:7 ", "7x", "7 ", "0x7",
                                         "x", "3::7", "3;7", "3.7"));

TEST(DeviceId, ABareIdWritesOnlyTheDevice) {
    const Ids ids("7");
    EXPECT_EQ(ids.result, 0);
    EXPECT_EQ(ids.serverId, 77U);
    EXPECT_EQ(ids.deviceId, 7U);
}

TEST(DeviceId, AServerAndADeviceWriteBoth) {
    const Ids ids("3:7");
    EXPECT_EQ(ids.result, 1);
    EXPECT_EQ(ids.serverId, 3U);
    EXPECT_EQ(ids.deviceId, 7U);
}

TEST(DeviceId, LeadingZerosAreDecimal) {
    const Ids ids("010:007");
    EXPECT_EQ(ids.serverId, 10U);
    EXPECT_EQ(ids.deviceId, 7U);
}

TEST(DeviceId, Beyond32BitsTheLowBitsCount) {
    const Ids ids("4294967296:4294967303");
    EXPECT_EQ(ids.result, 1);
    EXPECT_EQ(ids.serverId, 0U);
    EXPECT_EQ(ids.deviceId, 7U);
    EXPECT_EQ(Ids("4294967295").deviceId, 4294967295U);
}

TEST(DeviceId, Beyond64BitsTheGreatestNumberCounts) {
    const Ids ids("18446744073709551616:99999999999999999999999");
    EXPECT_EQ(ids.result, 1);
    EXPECT_EQ(ids.serverId, 4294967295U);
    EXPECT_EQ(ids.deviceId, 4294967295U);
}

}  // namespace
