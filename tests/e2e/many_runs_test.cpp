// One utility after the other, as a script runs it.

#include <gtest/gtest.h>

#include <utility>

#include "tests/e2e/daemon_on_control_path.h"
#include "tests/e2e/utility.h"
#include "tests/support/emulated.h"
#include "tests/support/how_many.h"

namespace {

// After these, in which a device is plugged and unplugged, the daemon is as it was before.
const std::vector<std::pair<Words, Outcome>> kRound = {
    {{"srv", "list", "-D"}, printed("3 - box:33000 - connected\n")},
    {{"dev", "plug", "3:7"}, silentSuccess()},
    {{"dev", "plug", "3:7"}, failedWith(37, "The device has been already plugged.\n")},
    {{"dev", "list", "-p"},
     printed("3:7 - 046d:c077:0000 - Maus, 1-1, plugged\n"
             "3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n")},
    {{"dev", "unplug", "3:7"}, silentSuccess()},
    {{"dev", "unplug", "3:7"}, failedWith(37, "The device has been already unplugged.\n")},
    {{"dev", "plug", "3:99"}, failedWith(2, "The device has not been found.\n")},
    {{"srv", "add", "box"}, failedWith(37, "The server has been already added.\n")},
    {{"srv", "remove", "-i", "99"}, failedWith(2, "The server has not been found.\n")},
    {{"dev"},
     printed("3:7 - 046d:c077:0000 - Maus, 1-1, unplugged\n"
             "3:8 - 0001:0002:0003 - Drucker, 1-2, Ω, plugged\n")},
};

TEST_F(WithSimulatedDaemon, EveryRunOfManyHasItsOutcome) {
    const uint64_t runs = howMany("HXUSBVCTL_SOAK_RUNS", kEmulated ? 20 : 200);
    const RunningProgram daemon = start();
    for (uint64_t run = 0; run < runs; ++run) {
        const auto& [words, outcome] = kRound[run % kRound.size()];
        ASSERT_EQ(runUtility(words), outcome) << "run " << run;
    }
    EXPECT_TRUE(daemon.isRunning());
    RecordProperty("runs", std::to_string(runs));
}

}  // namespace
