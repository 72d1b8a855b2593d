#include "tests/e2e/utility.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>

#include "tests/e2e/scripted_peer.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/emulated.h"

namespace {

Words commandLine(const Words& words) {
    Words all{UTILITY_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

}  // namespace

Outcome runUtility(const Words& words) {
    return runProgram(commandLine(words));
}

RunningProgram startUtility(const Words& words) {
    return RunningProgram(commandLine(words));
}

RunningProgram startUtilityByShell(const std::string& command, const Words& words) {
    Words all{"/bin/sh", "-c", command, "sh"};
    const Words last = commandLine(words);
    all.insert(all.end(), last.begin(), last.end());
    return RunningProgram(all);
}

Outcome runUtilityAgainst(std::string_view reply, const Words& words) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(words);
    const UnixStream connection = peer.accept();
    EXPECT_GE(connection.receiveFrame().size(), 8U);
    EXPECT_TRUE(connection.send(reply));
    return utility.finish();
}

std::string usageText() {
    return "Usage:\thxusbvctl srv\t\t- show list of servers and their devices\n"
           "\thxusbvctl srv list [-D]\t- show list of servers and their devices if -D is not "
           "specified\n"
           "\thxusbvctl srv add [-p TCPport] <host>\t- add server\n"
           "\thxusbvctl srv remove <HOST-ID>\t- remove server\n"
           "\thxusbvctl srv disconnect <HOST-ID>\t- disconnect server\n"
           "\thxusbvctl srv reconnect <HOST-ID>\t- reconnect server\n"
           "\thxusbvctl dev\t\t- show list of devices from all servers\n"
           "\thxusbvctl dev list [-n|-N|-p]\t- show sorted list of all devices by "
           "serverId:deviceId.\n"
           "\t\t-n - sort by ascending name\n"
           "\t\t-N - sort by descending name\n"
           "\t\t-p - show plugged devices only\n"
           "\thxusbvctl dev plug [-1] <DEVICE-ID>\t- plug virtual device to the system\n"
           "\t\t-1 - plug the device once without further replug\n"
           "\thxusbvctl dev unplug <DEVICE-ID>\t- unplug virtual device from the system\n"
           "\thxusbvctl -h\t\t- this help\n"
           "\n"
           "HOST-ID:\n"
           "\t [-p TCPport] -h host\n"
           "\t -i serverId\n"
           "DEVICE-ID:\n"
           "\t <HOST-ID> deviceId\n"
           "\t serverId:deviceId\n";
}

void expectPeakOfAtMost(size_t bytes, const RunningProgram& utility) {
    testing::Test::RecordProperty("peakBytes", std::to_string(utility.peakMemory()));
    if (stress::kAddressSanitizer || stress::kThreadSanitizer || kEmulated) return;
    if (utility.leastPeakMemory() > bytes) {
        std::printf("the peak is not compared: this process has had %zu bytes in use\n",
                    utility.leastPeakMemory());
        return;
    }
    EXPECT_LE(utility.peakMemory(), bytes);
}

Outcome silentSuccess() {
    return {.status = 0, .out = "", .err = ""};
}

Outcome printed(const std::string& out) {
    return {.status = 0, .out = out, .err = ""};
}

Outcome failedWith(int status, const std::string& err) {
    return {.status = status, .out = "", .err = err};
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << "status " << outcome.status << ", out " << testing::PrintToString(outcome.out)
         << ", err " << testing::PrintToString(outcome.err);
}
