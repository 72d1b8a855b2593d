// Every system call that the utility makes fails once: each of its kind, with each error that a
// user can meet, at each place. It works all the same, or ends with a status of its own and the
// words that go with it.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/linux/refused_system_calls.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"

namespace {

// How often the C library makes a call, if at all, is up to it, and to which thread comes first.
enum class Made { ByUs, ByTheCLibrary };

struct Case {
    const char* name;
    long systemCall;
    Made made;
    std::vector<int> errors;
};

const Words kAdd{UTILITY_PROGRAM, "srv", "add", "box"};

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
        if (stress::kAddressSanitizer || stress::kThreadSanitizer)
            GTEST_SKIP() << "left out: a sanitizer makes calls of its own";
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

    // Runs the utility with each failure in turn. It works all the same, or ends in one of these
    // ways, each of which each call of ours has to bring about.
    static void sweep(const std::vector<Case>& cases, const std::vector<Outcome>& ends) {
        for (const Case& each : cases) {
            std::vector<Outcome> outcomes;
            for (const int error : each.errors)
                sweep(each, error, ends, outcomes);
            std::printf("%s: %zu failures injected\n", each.name, outcomes.size());
            if (each.made == Made::ByTheCLibrary) continue;
            EXPECT_FALSE(outcomes.empty()) << each.name;
            for (const Outcome& end : ends)
                EXPECT_TRUE(contains(outcomes, end))
                    << each.name << " does not lead to " << testing::PrintToString(end);
        }
    }

private:
    static void sweep(const Case& each, int error, const std::vector<Outcome>& ends,
                      std::vector<Outcome>& outcomes) {
        for (RefusedCall call{.systemCall = each.systemCall, .error = error};; ++call.nth) {
            const RefusedRun refused = run(call);
            if (!refused.happened) {
                EXPECT_EQ(refused.outcome, kAdded);
                return;
            }
            EXPECT_TRUE(refused.outcome == kAdded || contains(ends, refused.outcome))
                << each.name << ", " << std::strerror(error) << ", " << call.nth << ": "
                << testing::PrintToString(refused.outcome);
            outcomes.push_back(refused.outcome);
        }
    }

    static bool contains(const std::vector<Outcome>& outcomes, const Outcome& outcome) {
        return std::find(outcomes.begin(), outcomes.end(), outcome) != outcomes.end();
    }
};

TEST_F(RefusedOnce, WhatCanBeDoneWithoutChangesNothing) {
    sweep({{"epoll_ctl", SYS_epoll_ctl, Made::ByUs, {ENOMEM, ENOSPC}},
           {"epoll_pwait2", SYS_epoll_pwait2, Made::ByUs, {EINTR, ENOSYS, EPERM}},
           {"futex", SYS_futex, Made::ByTheCLibrary, {EINTR, EAGAIN}},
           {"getsockopt", SYS_getsockopt, Made::ByUs, {ENOPROTOOPT, ENOBUFS}},
           {"ioctl", SYS_ioctl, Made::ByUs, {ENOTTY, EINVAL}},
           {"munmap", SYS_munmap, Made::ByTheCLibrary, {ENOMEM}},
           {"newfstatat", SYS_newfstatat, Made::ByTheCLibrary, {EIO, ENOMEM}},
           {"ppoll", SYS_ppoll, Made::ByUs, {EINTR, ENOMEM, EINVAL}}},
          {});
}

TEST_F(RefusedOnce, WithoutALoopItsEndIs12) {
    sweep({{"clone3", SYS_clone3, Made::ByTheCLibrary, {EAGAIN, ENOMEM, ENOSYS, EPERM}},
           {"epoll_create1", SYS_epoll_create1, Made::ByUs, {EMFILE, ENFILE, ENOMEM}},
           {"mmap", SYS_mmap, Made::ByTheCLibrary, {ENOMEM}},
           {"mprotect", SYS_mprotect, Made::ByTheCLibrary, {ENOMEM, EACCES}}},
          {kNoLoop});
}

TEST_F(RefusedOnce, WithoutASocketItsEndIs12) {
    const std::vector<int> refusals{EACCES, EAGAIN, ECONNREFUSED, EINTR, ENOENT, EPERM, ETIMEDOUT};
    sweep({{"connect", SYS_connect, Made::ByUs, refusals},
           {"fcntl", SYS_fcntl, Made::ByUs, {EAGAIN, EINTR, ENOMEM, EPERM}},
           {"socket", SYS_socket, Made::ByUs, {EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM}}},
          {kCannotConnect});
}

TEST_F(RefusedOnce, WithoutItsReplyItsEndIs5) {
    const std::vector<int> errors{EAGAIN, ECONNRESET, EINTR, EIO, ENOMEM, ETIMEDOUT};
    sweep({{"read", SYS_read, Made::ByUs, errors}}, {kTerminated});
}

// Its request is written, and the outcome itself, of which so much is seen as can be written.
TEST_F(RefusedOnce, WithoutItsRequestItsEndIs5AndWithoutItsWordsItsOwn) {
    const std::vector<int> errors{EAGAIN,  ECONNRESET, EDQUOT, EINTR, EIO,
                                  ENOBUFS, ENOMEM,     ENOSPC, EPIPE};
    sweep({{"write", SYS_write, Made::ByUs, errors}}, {silentSuccess(), kTerminated});
}

}  // namespace
