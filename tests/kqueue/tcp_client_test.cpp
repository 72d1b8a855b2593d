#include "kqueue/HXKQueueTCPClient.h"

#include <netinet/in.h>
#include <unistd.h>

#include <array>

#include "tests/kqueue/full_listener.h"
#include "tests/kqueue/loop_fixture.h"

namespace {

class TcpClient : public LoopTest {
protected:
    // Listens on loopback; port receives the kernel's choice.
    static int listenOn(sa_family_t family, uint16_t& port) {
        struct sockaddr_storage address = loopback(family, 0);
        const int sock = socket(family, SOCK_STREAM, 0);
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (bind(sock, asSockaddr(address), length) != 0) {
            close(sock);
            return -1;
        }
        EXPECT_EQ(listen(sock, 16), 0);
        getsockname(sock, reinterpret_cast<struct sockaddr*>(&address), &length);
        port =
            ntohs(family == AF_INET ? reinterpret_cast<struct sockaddr_in*>(&address)->sin_port
                                    : reinterpret_cast<struct sockaddr_in6*>(&address)->sin6_port);
        return sock;
    }

    void talk(const std::shared_ptr<HXKQueueTCPClient>& client, int listener) {
        const int peer = accept(listener, nullptr, nullptr);
        loop->startObject(client, events.block());
        loop->write(client, "ping", 4);
        std::array<char, 4> bytes{};
        ASSERT_EQ(recv(peer, bytes.data(), 4, MSG_WAITALL), 4);
        ASSERT_EQ(::write(peer, "pong", 4), 4);
        ASSERT_TRUE(events.waitForBytes(4));
        EXPECT_EQ(events.codes().front(), HXKQueueEventConnected);
        EXPECT_EQ(events.allBytes(), "pong");
        close(peer);
    }

    EventRecorder events;
};

TEST_F(TcpClient, TalksOverIPv4AndLogsItsCreation) {
    uint16_t port = 0;
    const int listener = listenOn(AF_INET, port);
    const auto client = loop->createTCPClient(asSockaddr(loopback(AF_INET, port)));
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(log.has("debug " + tagOf(client.get()) +
                        ": TCP Client (127.0.0.1:" + std::to_string(port) + ") created"));
    talk(client, listener);
    stopLoop();
    close(listener);
}

TEST_F(TcpClient, TalksOverIPv6AndLogsItsCreation) {
    uint16_t port = 0;
    const int listener = listenOn(AF_INET6, port);
    if (listener == -1) GTEST_SKIP() << "no IPv6 on this machine";
    const auto client = loop->createTCPClient(asSockaddr(loopback(AF_INET6, port)));
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(log.has("debug " + tagOf(client.get()) +
                        ": TCP Client (::1:" + std::to_string(port) + ") created"));
    talk(client, listener);
    stopLoop();
    close(listener);
}

TEST_F(TcpClient, OfAnUnknownFamilyFails) {
    struct sockaddr_storage address = loopback(AF_INET, 1);
    address.ss_family = AF_UNSPEC;
    EXPECT_EQ(loop->createTCPClient(asSockaddr(address)), nullptr);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error cannot initialize TCP socket object"});
}

TEST_F(TcpClient, EndpointOfAnUnknownFamilyIsLoggedAsUnknown) {
    struct sockaddr_storage address = {};
    address.ss_family = AF_UNIX;
    loop->logInet("TCP Client", asSockaddr(address), this);
    EXPECT_TRUE(log.has("debug " + tagOf(this) + ": TCP Client (unknown:0) created"));
}

class PendingTcpClient : public TcpClient {
protected:
    PendingTcpClient() { loop->startObject(client, events.block()); }
    ~PendingTcpClient() override { stopLoop(); }

    FullListener listener;
    const std::shared_ptr<HXKQueueTCPClient> client =
        loop->createTCPClient(asSockaddr(listener.address()));
};

TEST_F(PendingTcpClient, SaysConnectedOnTheIOThreadAndSendsWhatWasQueued) {
    loop->write(client, "queued", 6);
    settle();
    EXPECT_TRUE(events.all().empty());
    const int accepted = listener.acceptPending();
    std::array<char, 6> bytes{};
    ASSERT_EQ(recv(accepted, bytes.data(), 6, MSG_WAITALL), 6);
    EXPECT_EQ(std::string(bytes.data(), 6), "queued");
    const RecordedEvent connected = events.last();
    EXPECT_EQ(connected.code, HXKQueueEventConnected);
    EXPECT_NE(connected.thread, std::this_thread::get_id());
    EXPECT_FALSE(connected.hadDropSize);
    close(accepted);
}

TEST_F(PendingTcpClient, SaysCannotConnectAndSaysItAgainUntilItIsStopped) {
    listener.endListening();
    ASSERT_TRUE(events.waitFor(HXKQueueEventCannotConnect, 2));
    const RecordedEvent event = events.all().front();
    EXPECT_EQ(event.code, HXKQueueEventCannotConnect);
    EXPECT_FALSE(event.hadBytes);
    EXPECT_EQ(event.size, 0U);
    EXPECT_FALSE(event.hadDropSize);
    loop->stopObject(client);
    settle();
    const size_t count = events.count(HXKQueueEventCannotConnect);
    settle();
    EXPECT_EQ(events.count(HXKQueueEventCannotConnect), count);
}

}  // namespace
