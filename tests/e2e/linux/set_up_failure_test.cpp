// What the utility does when the system refuses it what it needs.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/linux/refused_system_calls.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"

namespace {

class SetUpFailure : public ControlPathTest {};

const Words kList{UTILITY_PROGRAM, "srv", "list"};

TEST_F(SetUpFailure, NoKernelQueueExits12) {
    const ScriptedPeer peer;
    EXPECT_EQ(runRefusing(SYS_epoll_create1, EMFILE, kList), kNoLoop);
}

TEST_F(SetUpFailure, NoThreadExits12) {
    if (stress::kThreadSanitizer)
        GTEST_SKIP() << "left out: the thread sanitizer makes a thread of its own";
    const ScriptedPeer peer;
    EXPECT_EQ(runRefusingThreads(kList), kNoLoop);
}

TEST_F(SetUpFailure, NoSocketExits12) {
    const ScriptedPeer peer;
    EXPECT_EQ(runRefusing(SYS_socket, EMFILE, kList), kCannotConnect);
}

TEST_F(SetUpFailure, RefusedConnectExits12) {
    const ScriptedPeer peer;
    EXPECT_EQ(runRefusing(SYS_connect, EACCES, kList), kCannotConnect);
}

}  // namespace
