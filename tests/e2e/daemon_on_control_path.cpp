#include "tests/e2e/daemon_on_control_path.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

constexpr const char* kInventory =
    R"({"servers":[{"id":3,"host":"box","devices":[)"
    R"({"id":7,"name":"Maus","vid":1133,"pid":49271,"port":"1-1"},)"
    R"({"id":8,"name":"Drucker","vid":1,"pid":2,"rev":3,"port":"1-2","serial":"Ω",)"
    R"("state":"plugged"}]}]})";

}  // namespace

void WithSimulatedDaemon::SetUp() {
    ControlPathTest::SetUp();
    if (IsSkipped()) return;
    std::string name = std::filesystem::temp_directory_path() / "e2eXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    std::ofstream(directory / "inventory.json") << kInventory;
}

void WithSimulatedDaemon::TearDown() {
    if (!directory.empty()) std::filesystem::remove_all(directory);
    ControlPathTest::TearDown();
}

RunningProgram WithSimulatedDaemon::start(const Words& options) const {
    Words words{SIM_PROGRAM, "--inventory", directory / "inventory.json"};
    words.insert(words.end(), options.begin(), options.end());
    RunningProgram daemon(words);
    EXPECT_TRUE(daemon.waitForOutput("hxusbvd-sim: listening on /var/run/hxusbvctl.sock\n"))
        << daemon.finish().err;
    return daemon;
}
