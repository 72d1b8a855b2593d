#include "platform/peer_credentials.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/platform/kernel_queue.h"

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

}  // namespace
