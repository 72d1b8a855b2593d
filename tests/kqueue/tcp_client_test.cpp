#include "kqueue/HXKQueueTCPClient.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <array>

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

// With its backlog full a listener leaves a connect pending; once it is closed, the next attempt
// of the kernel (after a second) is refused.
class PendingTcpClient : public TcpClient {
protected:
    PendingTcpClient() : listener(listenOn(AF_INET, port)) {
        EXPECT_EQ(listen(listener, 0), 0);
        for (int i = 0; i < 10 && !pending(); ++i)
            fillers.push_back(client);
    }
    ~PendingTcpClient() override {
        stopLoop();
        if (listener != -1) close(listener);
    }

    // Makes one more client; true when its connect does not complete.
    bool pending() {
        client = loop->createTCPClient(asSockaddr(loopback(AF_INET, port)));
        loop->startObject(client, events.block());
        for (int i = 0; i < 5; ++i)
            settle();
        return std::ranges::none_of(
            events.all(), [this](const RecordedEvent& event) { return event.source == client; });
    }

    // The others are told of their ends when the listener goes.
    [[nodiscard]] RecordedEvent firstOfClient() const {
        for (const RecordedEvent& event : events.all())
            if (event.source == client) return event;
        return {};
    }

    uint16_t port = 0;
    int listener;
    std::vector<std::shared_ptr<HXKQueueTCPClient>> fillers;
    std::shared_ptr<HXKQueueTCPClient> client;
};

TEST_F(PendingTcpClient, SaysConnectedOnTheIOThreadAndSendsWhatWasQueued) {
    loop->write(client, "queued", 6);
    settle();
    EXPECT_EQ(events.count(HXKQueueEventCannotConnect), 0U);
    // Taking connections makes room for the pending one.
    std::vector<int> accepted;
    std::string received;
    while (received.empty()) {
        accepted.push_back(accept(listener, nullptr, nullptr));
        std::array<char, 6> bytes{};
        const bool last = accepted.size() > fillers.size();
        const ssize_t size =
            recv(accepted.back(), bytes.data(), 6, last ? MSG_WAITALL : MSG_DONTWAIT);
        if (size > 0) received.assign(bytes.data(), static_cast<size_t>(size));
    }
    EXPECT_EQ(received, "queued");
    const RecordedEvent connected = firstOfClient();
    EXPECT_EQ(connected.code, HXKQueueEventConnected);
    EXPECT_NE(connected.thread, std::this_thread::get_id());
    EXPECT_FALSE(connected.hadDropSize);
    for (const int sock : accepted)
        close(sock);
}

TEST_F(PendingTcpClient, SaysCannotConnectAndSaysItAgainUntilItIsStopped) {
    close(listener);
    listener = -1;
    ASSERT_TRUE(events.waitFor(HXKQueueEventCannotConnect, 2));
    const RecordedEvent event = firstOfClient();
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
