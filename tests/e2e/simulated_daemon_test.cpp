// The utility and the simulated daemon, both as programs, on the control path.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/e2e/control_path.h"
#include "tests/e2e/utility.h"

namespace {

constexpr int kUtilities = 100;
constexpr int kRounds = 50;

constexpr const char* kInventory =
    R"({"servers":[{"id":3,"host":"box","devices":[)"
    R"({"id":7,"name":"Maus","vid":1133,"pid":49271,"port":"1-1"},)"
    R"({"id":8,"name":"Drucker","vid":1,"pid":2,"rev":3,"port":"1-2","serial":"Ω",)"
    R"("state":"plugged"}]}]})";

class WithSimulatedDaemon : public ControlPathTest {
protected:
    void SetUp() override {
        ControlPathTest::SetUp();
        if (IsSkipped()) return;
        std::string name = std::filesystem::temp_directory_path() / "e2eXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        std::ofstream(directory / "inventory.json") << kInventory;
    }

    void TearDown() override {
        if (!directory.empty()) std::filesystem::remove_all(directory);
        ControlPathTest::TearDown();
    }

    // Returns once the daemon listens on the control path.
    [[nodiscard]] RunningProgram start() const {
        RunningProgram daemon({SIM_PROGRAM, "--inventory", directory / "inventory.json"});
        EXPECT_TRUE(daemon.waitForOutput("hxusbvd-sim: listening on /var/run/hxusbvctl.sock\n"))
            << daemon.finish().err;
        return daemon;
    }

    std::filesystem::path directory;
};

const Outcome kNoServer = failedWith(2, "The server has not been found.\n");
const Outcome kNoDevice = failedWith(2, "The device has not been found.\n");

TEST_F(WithSimulatedDaemon, ServerLivesFromAddToRemove) {
    const RunningProgram daemon = start();
    EXPECT_EQ(runUtility({"srv", "add", "-p", "40000", "new"}),
              printed("The server is added with Id: 4.\n"));
    EXPECT_EQ(runUtility({"srv", "add", "-p", "40000", "new"}),
              failedWith(37, "The server has been already added.\n"));
    EXPECT_EQ(runUtility({"srv", "list", "-D"}),
              printed("3 - box:33000 - connected\n4 - new:40000 - connected\n"));
    EXPECT_EQ(runUtility({"dev", "plug", "4:1"}), silentSuccess());
    EXPECT_EQ(runUtility({"dev", "list", "-p"}),
              printed("3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n"
                      "4:1 - 0951:1666:0110 - Flash Drive, 1-1, FD4, plugged\n"));
    EXPECT_EQ(runUtility({"dev", "unplug", "4:1"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "disconnect", "-i", "4"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "list", "-D"}),
              printed("3 - box:33000 - connected\n4 - new:40000 - disconnected\n"));
    EXPECT_EQ(runUtility({"srv", "reconnect", "-p", "40000", "-h", "new"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "remove", "-i", "4"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "remove", "-i", "4"}), kNoServer);
    EXPECT_EQ(runUtility({"srv", "list", "-D"}), printed("3 - box:33000 - connected\n"));
}

TEST_F(WithSimulatedDaemon, ListsAreTheReports) {
    const RunningProgram daemon = start();
    EXPECT_EQ(runUtility({"srv"}), printed("3 - box:33000 - connected\n"
                                           " 7\t046d:c077:0000\t1-1\tMaus /unplugged/\n"
                                           " 8\t0001:0002:0003\t1-2\tDrucker /plugged, Ω/\n"));
    EXPECT_EQ(runUtility({"dev", "list", "-n"}),
              printed("3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n"
                      "3:7 - 046d:c077:0000 - Maus, 1-1, unplugged\n"));
}

TEST_F(WithSimulatedDaemon, DeviceIsPluggedAndUnpluggedByEitherName) {
    const RunningProgram daemon = start();
    for (const Words& device : {Words{"3:7"}, Words{"-i", "3", "7"}, Words{"-h", "box", "7"}}) {
        Words plug{"dev", "plug"};
        Words unplug{"dev", "unplug"};
        plug.insert(plug.end(), device.begin(), device.end());
        unplug.insert(unplug.end(), device.begin(), device.end());
        EXPECT_EQ(runUtility(plug), silentSuccess());
        EXPECT_EQ(runUtility(plug), failedWith(37, "The device has been already plugged.\n"));
        EXPECT_EQ(runUtility(unplug), silentSuccess());
        EXPECT_EQ(runUtility(unplug), failedWith(37, "The device has been already unplugged.\n"));
    }
}

TEST_F(WithSimulatedDaemon, UnknownServersAndDevicesAreNotFound) {
    const RunningProgram daemon = start();
    EXPECT_EQ(runUtility({"srv", "disconnect", "-i", "9"}), kNoServer);
    EXPECT_EQ(runUtility({"srv", "reconnect", "-p", "1", "-h", "box"}), kNoServer);
    EXPECT_EQ(runUtility({"dev", "plug", "3:9"}), kNoDevice);
    EXPECT_EQ(runUtility({"dev", "unplug", "-h", "elsewhere", "7"}), kNoDevice);
}

TEST_F(WithSimulatedDaemon, OnlyADevicePluggedForGoodIsPluggedByReconnect) {
    const RunningProgram daemon = start();
    EXPECT_EQ(runUtility({"dev", "plug", "-1", "3:7"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "disconnect", "-i", "3"}), silentSuccess());
    EXPECT_EQ(runUtility({"dev", "list", "-p"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "reconnect", "-i", "3"}), silentSuccess());
    EXPECT_EQ(runUtility({"dev", "list", "-p"}),
              printed("3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n"));
}

TEST_F(WithSimulatedDaemon, UtilityCannotConnectOnceItHasEnded) {
    RunningProgram daemon = start();
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish().status, 0);
    EXPECT_EQ(runUtility({"srv"}), failedWith(12, "cannot connect to the daemon\n"));
}

struct Run {
    Words words;
    Outcome end;
};

// Of every kind of command one whose end does not depend on the others.
const std::vector<Run> kRuns{
    {{"srv", "list", "-D"}, printed("3 - box:33000 - connected\n")},
    {{"dev", "list", "-p"}, printed("3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n")},
    {{"srv", "add", "box"}, failedWith(37, "The server has been already added.\n")},
    {{"srv", "remove", "-i", "9"}, kNoServer},
    {{"dev", "plug", "3:8"}, failedWith(37, "The device has been already plugged.\n")}};

TEST_F(WithSimulatedDaemon, HundredUtilitiesAtOnceAllGetTheirAnswers) {
    const RunningProgram daemon = start();
    for (int round = 0; round < kRounds; ++round) {
        std::vector<RunningProgram> utilities;
        for (size_t i = 0; i < kUtilities; ++i)
            utilities.push_back(startUtility(kRuns[i % kRuns.size()].words));
        for (size_t i = 0; i < kUtilities; ++i)
            ASSERT_EQ(utilities[i].finish(), kRuns[i % kRuns.size()].end)
                << "round " << round << ", utility " << i;
    }
}

}  // namespace
