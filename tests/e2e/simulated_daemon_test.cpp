// The utility and the simulated daemon, both as programs, on the control path.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

#include "tests/e2e/daemon_on_control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/utility.h"
#include "tests/support/emulated.h"

namespace {

constexpr int kUtilities = 100;
constexpr int kRounds = kEmulated ? 5 : 50;

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};

// So long that nothing happens before a test is over.
const Words kForever{"--latency", "3600000"};

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

// Asks until the list is the expected one.
void waitForServers(const std::string& expected) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    Outcome last;
    while (last != printed(expected) && Clock::now() < deadline)
        last = runUtility({"srv", "list", "-D"});
    EXPECT_EQ(last, printed(expected));
}

TEST_F(WithSimulatedDaemon, AddedServerIsConnectingAndThenConnected) {
    const RunningProgram daemon = start({"--latency", "100"});
    const Clock::time_point asked = Clock::now();
    EXPECT_EQ(runUtility({"srv", "add", "new"}), printed("The server is added with Id: 4.\n"));
    waitForServers("3 - box:33000 - connected\n4 - new:33000 - connected\n");
    EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(100));
    EXPECT_EQ(runUtility({"dev", "plug", "4:2"}), silentSuccess());
}

TEST_F(WithSimulatedDaemon, UnreachableServerFails) {
    const RunningProgram daemon = start({"--latency", "1"});
    EXPECT_EQ(runUtility({"srv", "add", "unreachable.example"}),
              printed("The server is added with Id: 4.\n"));
    waitForServers("3 - box:33000 - connected\n4 - unreachable.example:33000 - failed\n");
}

TEST_F(WithSimulatedDaemon, StatesInBetweenAreListed) {
    const RunningProgram daemon = start(kForever);
    EXPECT_EQ(runUtility({"srv", "add", "new"}), printed("The server is added with Id: 4.\n"));
    EXPECT_EQ(runUtility({"srv", "add", "new"}),
              failedWith(37, "The server has been already added.\n"));
    EXPECT_EQ(runUtility({"srv", "reconnect", "-i", "3"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "list"}),
              printed("3 - box:33000 - disconnecting\n"
                      " 7\t046d:c077:0000\t1-1\tMaus /unplugged/\n"
                      " 8\t0001:0002:0003\t1-2\tDrucker /unplugged, Ω/\n"
                      "4 - new:33000 - connecting\n"));
    EXPECT_EQ(runUtility({"dev", "plug", "3:7"}), kNoDevice);
    EXPECT_EQ(runUtility({"dev", "plug", "4:1"}), kNoDevice);
    EXPECT_EQ(runUtility({"srv", "remove", "-i", "4"}), silentSuccess());
    EXPECT_EQ(runUtility({"srv", "list", "-D"}), printed("3 - box:33000 - disconnecting\n"));
}

TEST_F(WithSimulatedDaemon, DevicesComeAndGoByThemselves) {
    const RunningProgram daemon = start({"--events=100"});
    const Outcome both = printed(
        "3:7 - 046d:c077:0000 - Maus, 1-1, unplugged\n"
        "3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n");
    const Clock::time_point deadline = Clock::now() + kPatience;
    bool oneIsGone = false;
    bool bothAreBack = false;
    while (!bothAreBack && Clock::now() < deadline) {
        const bool complete = runUtility({"dev"}) == both;
        if (complete) bothAreBack = oneIsGone;
        if (!complete) oneIsGone = true;
    }
    EXPECT_TRUE(bothAreBack);
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
    EXPECT_EQ(runUtility({"srv"}), kCannotConnect);
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

TEST_F(WithSimulatedDaemon, IsServedWhateverTheDaemonWasStartedIn) {
    const std::string bare = "umask 777 && " + std::string(kWithoutVariables) + "\"$@\"";
    for (const std::string& surroundings :
         {std::string("exec \"$@\" 0<&- 1>&-"), std::string("exec \"$@\" 1>&- 2>&-"),
          std::string("exec \"$@\" 0<&- 1>&- 2>&-"), bare}) {
        RunningProgram daemon({"/bin/sh", "-c", surroundings, "sh", SIM_PROGRAM, "--inventory",
                               directory / "inventory.json"});
        const Clock::time_point deadline = Clock::now() + kPatience;
        Outcome outcome;
        do
            outcome = runUtility({"srv", "list", "-D"});
        while (outcome.status == 12 && Clock::now() < deadline);
        EXPECT_EQ(outcome, printed("3 - box:33000 - connected\n")) << surroundings;
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.finish().status, 0) << surroundings;
    }
}

}  // namespace
