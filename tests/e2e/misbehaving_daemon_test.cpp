// The utility against a simulated daemon that misbehaves on purpose.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/e2e/daemon_on_control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/utility.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};
constexpr uint64_t kListRequestSize = 8;

const Words kList{"srv", "list", "-D"};
const Outcome kListed = printed("3 - box:33000 - connected\n");

// What the program has read since it was started, from files, sockets and all.
uint64_t bytesReadBy(const RunningProgram& program) {
    std::ifstream counts("/proc/" + std::to_string(program.pid()) + "/io");
    std::string key;
    uint64_t count = 0;
    if (!(counts >> key >> count) || key != "rchar:")
        throw std::runtime_error("the system does not tell what the program has read");
    return count;
}

void waitUntilRead(const RunningProgram& program, uint64_t count) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (bytesReadBy(program) < count) {
        if (Clock::now() > deadline) throw std::runtime_error("the program does not read");
        std::this_thread::yield();
    }
}

class MisbehavingDaemon : public WithSimulatedDaemon {
protected:
    [[nodiscard]] Outcome runAgainst(const std::string& misbehaviour, const Words& words) const {
        const RunningProgram daemon = start({"--misbehave", misbehaviour});
        return runUtility(words);
    }
};

TEST_F(MisbehavingDaemon, DelayedReplyIsWaitedFor) {
    const RunningProgram daemon = start({"--misbehave", "delay", "--delay", "200"});
    const Clock::time_point asked = Clock::now();
    EXPECT_EQ(runUtility(kList), kListed);
    EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(200));
}

TEST_F(MisbehavingDaemon, ReplyInSingleBytesIsPutTogether) {
    const RunningProgram daemon = start({"--misbehave", "bytes", "--delay", "1"});
    const Clock::time_point asked = Clock::now();
    EXPECT_EQ(runUtility({"srv", "remove", "-i", "9"}),
              failedWith(2, "The server has not been found.\n"));
    EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(29));
    EXPECT_EQ(runUtility({"dev", "list", "-p"}),
              printed("3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n"));
}

TEST_F(MisbehavingDaemon, SilenceIsWaitedOutUntilTheDaemonEnds) {
    RunningProgram daemon = start({"--misbehave", "silence"});
    const uint64_t before = bytesReadBy(daemon);
    RunningProgram utility = startUtility(kList);
    waitUntilRead(daemon, before + kListRequestSize);
    daemon.signal(SIGTERM);
    EXPECT_EQ(utility.finish(), kTerminated);
    EXPECT_EQ(daemon.finish().status, 0);
}

TEST_F(MisbehavingDaemon, CloseBeforeOrDuringTheReplyIsATerminatedConnection) {
    EXPECT_EQ(runAgainst("close-before", kList), kTerminated);
    EXPECT_EQ(runAgainst("close-during", kList), kTerminated);
    EXPECT_EQ(runAgainst("close-during", {"dev", "unplug", "3:8"}), kTerminated);
}

TEST_F(MisbehavingDaemon, CloseAfterTheReplyDoesNoHarm) {
    EXPECT_EQ(runAgainst("close-after", kList), kListed);
}

TEST_F(MisbehavingDaemon, WrongRepliesEndTheUtilityWithWhatIsWrong) {
    const std::vector<std::pair<std::string, Outcome>> ends{{"garbage", kInvalidProtocol},
                                                            {"not-json", kCannotParse},
                                                            {"array", kWrongTopLevel},
                                                            {"length-short", kCannotParse},
                                                            {"length-zero", kInvalidProtocol},
                                                            {"length-limit", kInvalidProtocol},
                                                            {"length-negative", kInvalidProtocol}};
    for (const auto& [misbehaviour, end] : ends) {
        EXPECT_EQ(runAgainst(misbehaviour, kList), end) << misbehaviour;
        EXPECT_EQ(runAgainst(misbehaviour, {"dev", "plug", "3:7"}), end) << misbehaviour;
    }
}

TEST_F(MisbehavingDaemon, RestOfAReplyThatIsAnnouncedTooLongIsWaitedFor) {
    RunningProgram daemon = start({"--misbehave", "length-long"});
    const uint64_t before = bytesReadBy(daemon);
    RunningProgram utility = startUtility(kList);
    waitUntilRead(daemon, before + kListRequestSize);
    EXPECT_TRUE(utility.isRunning());
    daemon.signal(SIGTERM);
    EXPECT_EQ(utility.finish(), kTerminated);
}

TEST_F(MisbehavingDaemon, RequestIsCarriedOutAllTheSame) {
    const RunningProgram daemon = start({"--misbehave", "close-after"});
    EXPECT_EQ(runUtility({"dev", "plug", "3:7"}), silentSuccess());
    EXPECT_EQ(runUtility({"dev", "plug", "3:7"}),
              failedWith(37, "The device has been already plugged.\n"));
}

}  // namespace
