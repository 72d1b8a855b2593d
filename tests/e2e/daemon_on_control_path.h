// The simulated daemon as a program on the control path, as the fixture of the tests that run the
// utility against it.
#pragma once

#include <filesystem>

#include "tests/e2e/control_path.h"
#include "tests/e2e/utility.h"

class WithSimulatedDaemon : public ControlPathTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Returns once the daemon listens on the control path, with the server 3, box:33000, and its
    // devices 7 and 8.
    [[nodiscard]] RunningProgram start(const Words& options = {"--latency", "0"}) const;

    std::filesystem::path directory;
};
