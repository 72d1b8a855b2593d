// The fixture of all tests that use the control path.
//
// Each test process gets a /var/run of its own. Where the system forbids that, the tests use the
// machine's, one at a time, if they may write there and nothing lies at the path; otherwise they
// are skipped with a line that says why.
#pragma once

#include <gtest/gtest.h>

#include <string>

inline constexpr const char* kControlPath = "/var/run/hxusbvctl.sock";

class ControlPathTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;  // leaves nothing at the path

private:
    bool ours = false;
};
