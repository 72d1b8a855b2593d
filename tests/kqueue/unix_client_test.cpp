#include "kqueue/HXKQueueUnixClient.h"

#include <fcntl.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "tests/kqueue/loop_fixture.h"

namespace {

class UnixClient : public LoopTest {
protected:
    UnixClient() : path(directory.file("socket")) { listener = listenAt(path); }
    ~UnixClient() override {
        stopLoop();
        close(listener);
    }

    static int listenAt(const std::string& path) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(sock, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(sock, 16), 0);
        return sock;
    }

    TemporaryDirectory directory;
    std::string path;
    int listener;
    EventRecorder events;
};

TEST_F(UnixClient, IsConnectedAtOnceAndLogsItsCreation) {
    const auto client = loop->createUnixClient(path.c_str());
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(log.has("debug " + tagOf(client.get()) + ": unix(" + path + ") created"));
    loop->startObject(client, events.block());
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
}

TEST_F(UnixClient, TalksBothWays) {
    const auto client = loop->createUnixClient(path.c_str());
    const int peer = accept(listener, nullptr, nullptr);
    loop->startObject(client, events.block());
    loop->write(client, "ping", 4);
    char bytes[4];
    ASSERT_EQ(recv(peer, bytes, 4, MSG_WAITALL), 4);
    ASSERT_EQ(::write(peer, "pong", 4), 4);
    ASSERT_TRUE(events.waitForBytes(4));
    EXPECT_EQ(events.allBytes(), "pong");
    close(peer);
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated));
}

TEST_F(UnixClient, LeavesItsSocketInBlockingMode) {
    const size_t before = openDescriptors();
    const int probe = dup(listener);
    close(probe);
    const auto client = loop->createUnixClient(path.c_str());
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(fcntl(probe, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(UnixClient, PathOf103BytesIsAttempted) {
    std::string longest = directory.file("");
    longest.resize(103, 'p');
    const int there = listenAt(longest);
    EXPECT_NE(loop->createUnixClient(longest.c_str()), nullptr);
    close(there);
}

// Where somebody listens, so that an attempt would succeed on a system that has room for it.
TEST_F(UnixClient, PathOf104BytesFailsAndLeavesNothingOpen) {
    std::string tooLong = directory.file("");
    tooLong.resize(104, 'p');
    const int there = listenAt(tooLong);
    const size_t before = openDescriptors();
    EXPECT_EQ(loop->createUnixClient(tooLong.c_str()), nullptr);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error cannot initialize unix socket object"});
    EXPECT_EQ(openDescriptors(), before);
    close(there);
}

TEST_F(UnixClient, FailsAtOnceWhenNobodyListensAndLeavesNothingOpen) {
    const size_t before = openDescriptors();
    EXPECT_EQ(loop->createUnixClient(directory.file("nobody").c_str()), nullptr);
    EXPECT_EQ(loop->createUnixClient(""), nullptr);
    EXPECT_EQ(log.errors(),
              (std::vector<std::string>(2, "error cannot initialize unix socket object")));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(UnixClient, FailsAtOnceWhenTheBacklogIsFullAndLeavesNothingOpen) {
    ASSERT_EQ(listen(listener, 1), 0);
    const size_t before = openDescriptors();
    size_t waiting = 0;
    while (loop->createUnixClient(path.c_str())) {
        ++waiting;
        ASSERT_LT(waiting, 10U) << "the backlog never fills";
    }
    EXPECT_GE(waiting, 1U);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error cannot initialize unix socket object"});
    EXPECT_EQ(openDescriptors(), before + waiting);
}

}  // namespace
