#include "platform/peer_credentials.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/platform/kernel_queue.h"
#include "tests/support/captured_run.h"

namespace {

TEST(PeerCredentials, AreThoseOfTheOtherEnd) {
    const Pair pair = unixPair();
    PeerCredentials peer = {};
    ASSERT_TRUE(peerCredentials(pair.ours, peer));
    EXPECT_EQ(peer.uid, geteuid());
    EXPECT_EQ(peer.gid, getegid());
    EXPECT_EQ(peer.pid, getpid());
}

TEST(PeerCredentials, OfNoSocketFailAndTouchNothing) {
    const Pair pair = pipePair();
    PeerCredentials peer = {.uid = 1, .gid = 2, .pid = 3};
    EXPECT_FALSE(peerCredentials(pair.ours, peer));
    EXPECT_EQ(peer.uid, 1U);
    EXPECT_EQ(peer.gid, 2U);
    EXPECT_EQ(peer.pid, 3);
}

TEST(PeerCredentials, TellTheUserFromTheGroup) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can take on a group that differs from its user";
    const Outcome outcome = runInChild([] {
        if (setegid(12'345) != 0) _exit(1);
        const Pair pair = unixPair();
        PeerCredentials peer = {};
        if (!peerCredentials(pair.ours, peer)) _exit(2);
        if (peer.uid != geteuid() || peer.gid != 12'345) _exit(3);
    });
    EXPECT_EQ(outcome.status, 0);
}

}  // namespace
