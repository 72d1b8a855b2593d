// Every system call that the utility makes fails once: each of its kind, with each error that a
// user can meet, at each place. It ends with a status of its own and the words that go with it.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "tests/e2e/control_path.h"
#include "tests/e2e/linux/refused_system_calls.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"

namespace {

struct Case {
    const char* name;
    long systemCall;
    std::vector<int> errors;
};

const Words kAdd{UTILITY_PROGRAM, "srv", "add", "box"};
const Outcome kAdded = printed("The server is added with Id: 7.\n");
const Outcome kNoLoop = failedWith(12, "cannot initialize kqueue\n");
const Outcome kNoClient = failedWith(12, "cannot connect to the daemon\n");
const Outcome kTerminated = failedWith(5, "connection terminated\n");

// A daemon that answers one request, if there is one.
void answer(const ScriptedPeer& peer) {
    const UnixStream connection = peer.accept();
    if (connection.receiveFrame().size() >= 8)
        static_cast<void>(connection.send(frame(1, R"({"status":"ok","id":7})")));
    static_cast<void>(connection.receiveToEnd());
}

class RefusedOnce : public ControlPathTest {
protected:
    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "left out: a sanitizer makes calls of its own";
#endif
        ControlPathTest::SetUp();
    }

    static RefusedRun run(const RefusedCall& call) {
        const ScriptedPeer peer;
        std::thread daemon([&] { answer(peer); });
        RefusedRun run = runRefusingOnce(call, kAdd);
        UnixStream::connectTo(kControlPath).close();  // for a daemon that nobody has come to
        daemon.join();
        return run;
    }

    // Runs the utility with each failure in turn; what is allowed to come of it.
    static void sweep(const std::vector<Case>& cases, const std::vector<Outcome>& allowed) {
        size_t injected = 0;
        for (const Case& each : cases) {
            const size_t before = injected;
            for (const int error : each.errors)
                injected += sweep({.systemCall = each.systemCall, .error = error}, allowed);
            EXPECT_GT(injected, before) << each.name;
        }
        std::printf("%zu failures injected\n", injected);
    }

private:
    static size_t sweep(RefusedCall call, const std::vector<Outcome>& allowed) {
        for (;; ++call.nth) {
            const RefusedRun refused = run(call);
            if (!refused.happened) {
                EXPECT_EQ(refused.outcome, kAdded);
                return call.nth - 1;
            }
            const auto found = std::find(allowed.begin(), allowed.end(), refused.outcome);
            EXPECT_NE(found, allowed.end())
                << call.systemCall << ", " << std::strerror(call.error) << ", " << call.nth << ": "
                << testing::PrintToString(refused.outcome);
        }
    }
};

TEST_F(RefusedOnce, WhatCanBeDoneWithoutChangesNothing) {
    sweep({{"epoll_ctl", SYS_epoll_ctl, {ENOMEM, ENOSPC}},
           {"epoll_pwait2", SYS_epoll_pwait2, {EINTR, ENOSYS, EPERM}},
           {"futex", SYS_futex, {EINTR, EAGAIN}},
           {"getsockopt", SYS_getsockopt, {ENOPROTOOPT, ENOBUFS}},
           {"ioctl", SYS_ioctl, {ENOTTY, EINVAL}},
           {"munmap", SYS_munmap, {ENOMEM}},
           {"ppoll", SYS_ppoll, {EINTR, ENOMEM, EINVAL}}},
          {kAdded});
}

TEST_F(RefusedOnce, EndsWithAStatusAndItsWords) {
    sweep(
        {{"clone3", SYS_clone3, {EAGAIN, ENOMEM, ENOSYS, EPERM}},
         {"connect", SYS_connect, {EACCES, EAGAIN, ECONNREFUSED, EINTR, ENOENT, EPERM, ETIMEDOUT}},
         {"epoll_create1", SYS_epoll_create1, {EMFILE, ENFILE, ENOMEM}},
         {"fcntl", SYS_fcntl, {EAGAIN, EINTR, ENOMEM, EPERM}},
         {"newfstatat", SYS_newfstatat, {EIO, ENOMEM}},
         {"mmap", SYS_mmap, {ENOMEM}},
         {"mprotect", SYS_mprotect, {ENOMEM, EACCES}},
         {"read", SYS_read, {EAGAIN, ECONNRESET, EINTR, EIO, ENOMEM, ETIMEDOUT}},
         {"socket", SYS_socket, {EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM}}},
        {kAdded, kNoLoop, kNoClient, kTerminated});
}

// The outcome itself is written, too.
TEST_F(RefusedOnce, WriteEndsWithAStatusAndAsManyOfItsWordsAsCanBeWritten) {
    sweep({{"write",
            SYS_write,
            {EAGAIN, ECONNRESET, EDQUOT, EINTR, EIO, ENOBUFS, ENOMEM, ENOSPC, EPIPE}}},
          {kAdded, silentSuccess(), kTerminated});
}

}  // namespace
