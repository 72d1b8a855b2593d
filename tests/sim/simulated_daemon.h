// The program hxusbvd-sim on a private path, as the fixture of the tests that are its clients.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/captured_run.h"
#include "tests/support/unix_stream.h"

inline const std::string kListRequest = frame(0, "");

// The list reply with the one server that the inventory file describes, in the given state.
[[nodiscard]] std::string listReply(std::string_view serverState,
                                    std::string_view deviceState = "unplugged");

class SimulatedDaemon : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] std::vector<std::string> command(
        const std::vector<std::string>& options = {}) const;

    // Returns once the daemon listens.
    [[nodiscard]] RunningProgram start(const std::vector<std::string>& options = {}) const;

    // A socket file at path whose owner is gone.
    void leaveStaleSocket() const;

    // What one client gets for what it sends.
    [[nodiscard]] std::string exchange(std::string_view request) const;

    // Asks for the list until it contains text, and returns it.
    [[nodiscard]] std::string listOnceItHas(std::string_view text) const;

    std::filesystem::path directory;
    std::filesystem::path path;
    std::filesystem::path inventoryPath;
};
