// A script that is run on the control path, with the programs of this build, and what it leaves
// behind: everything it starts inherits one end of a pipe, and what it writes lands below a
// directory of the test's own.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/control_path.h"
#include "tests/support/terminal.h"

using Words = std::vector<std::string>;

class ScriptTest : public ControlPathTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // The command line of scripts/NAME.
    [[nodiscard]] static Words script(const std::string& name, const Words& arguments = {});

    // A program that is found before all others of its name: a script for sh.
    void makeProgram(const std::string& name, const std::string& text) const;

    // Waits until no process that a script has started is there any more; then neither are its
    // temporary files nor the daemon's socket. A directory of fish's stays, which all of a user's
    // fishes share.
    void expectNothingIsLeft();

    // Whether none is there already. Nothing can be started afterwards.
    [[nodiscard]] bool allAreGone(int patienceMs = 0);

    std::filesystem::path directory;
    std::filesystem::path home;

private:
    int started = -1;  // the end of the pipe that is inherited
    int gone = -1;     // the other one
};
