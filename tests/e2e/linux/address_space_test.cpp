// Less and less memory, until there is not enough for anything.

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <thread>

#include "tests/e2e/daemon_on_control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/linux/rest.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"

namespace {

constexpr int kDevices = 5'000;
constexpr int kStepKiB = 512;
constexpr int kReserveKiB = 128;  // that of the C++ library takes about 90
constexpr int kEnoughKiB = 128 << 10;

std::string inventory() {
    std::string text = R"({"servers":[{"id":3,"host":"box","devices":[)";
    for (int id = 1; id <= kDevices; ++id)
        text += (id > 1 ? ",{\"id\":" : "{\"id\":") + std::to_string(id) +
                R"(,"name":"Maus","vid":1133,"pid":49271,"port":"1-1"})";
    return text + "]}]}";
}

class AddressSpace : public WithSimulatedDaemon {
protected:
    // None if the utility waits without its loop's thread, which has found too little. The report
    // goes to a file, where it never has to wait for room.
    [[nodiscard]] std::optional<Outcome> runWithin(int limitKiB,
                                                   const Words& words = {"srv"}) const {
        const std::string report = directory / "report";
        RunningProgram utility = startUtilityByShell(
            "ulimit -v " + std::to_string(limitKiB) + " && exec \"$@\" >" + report, words);
        Rest rest(utility.pid());
        for (; utility.isRunning(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
            if (!rest.isReached()) continue;
            if (rest.isAlone()) return std::nullopt;
            rest.begin();
        }
        Outcome outcome = utility.finish();
        std::ifstream file(report);
        outcome.out.assign(std::istreambuf_iterator<char>(file), {});
        return outcome;
    }

    // With less the system cannot load the program, or the C++ library has no reserve to throw
    // exceptions from: then any program ends where memory is short.
    [[nodiscard]] int leastLimit() const {
        int limit = kReserveKiB;
        while (limit < kEnoughKiB && runWithin(limit, {"-h"}) != printed(usageText()))
            limit += kReserveKiB;
        return limit + kReserveKiB;
    }
};

using Ends = std::map<std::string, int>;  // how often each was seen

TEST_F(AddressSpace, EveryLimitEndsTheUtilityInOneOfItsWays) {
    if (stress::kAddressSanitizer || stress::kThreadSanitizer)
        GTEST_SKIP() << "left out: a sanitizer needs terabytes";
    std::ofstream(directory / "inventory.json") << inventory();
    const RunningProgram daemon = start();
    const std::optional<Outcome> whole = runWithin(kEnoughKiB);
    ASSERT_TRUE(whole.has_value());
    ASSERT_EQ(whole->status, 0) << whole->err;
    ASSERT_GT(whole->out.size(), size_t{kDevices} * 30);

    Ends ends;
    for (int limit = leastLimit(); ends["the report"] < 8 && limit < kEnoughKiB;
         limit += kStepKiB) {
        const std::optional<Outcome> outcome = runWithin(limit);
        if (!outcome)
            ++ends["no room for the thread's part"];
        else if (outcome == whole)
            ++ends["the report"];
        else if (outcome == kNoLoop)
            ++ends["no loop"];
        else if (outcome == kCannotConnect)
            ++ends["no client"];
        else if (outcome == kTerminated)
            ++ends["no room for the reply"];
        else if (outcome == kCannotParse)
            ++ends["no room for its values"];
        else if (outcome == silentSuccess() || outcome == printed("3 - box:33000 - connected\n"))
            ++ends["no room to sort the servers, or the devices"];
        else
            ADD_FAILURE() << limit << " KiB: " << testing::PrintToString(*outcome);
    }
    EXPECT_GE(ends["no loop"], 1);
    EXPECT_GE(ends["no room for the reply"], 1);
    EXPECT_GE(ends["no room for its values"], 1);
    EXPECT_GE(ends["the report"], 8);
    for (const auto& [end, count] : ends)
        RecordProperty(end, count);
}

}  // namespace
