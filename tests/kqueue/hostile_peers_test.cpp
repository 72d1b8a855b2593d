// Peers that are out to harm a server, or what it serves others with.

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ostream>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/descriptors.h"
#include "tests/support/quiet_send.h"
#include "tests/support/unix_stream.h"

namespace {

// How a client ends its connection. TCP's answer to an abrupt end is a reset.
enum class End { Closed, ClosedAbruptly, HalfClosedFirst };

void endConnection(int sock, End end) {
    if (end == End::HalfClosedFirst) shutdown(sock, SHUT_WR);
    const struct linger atOnce = {.l_onoff = 1, .l_linger = 0};
    if (end == End::ClosedAbruptly) setsockopt(sock, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(sock);
}

struct Family {
    int number;
    const char* name;

    // How the list of tests shows it.
    friend void PrintTo(const Family& family, std::ostream* out) { *out << family.name; }
};

// A loop, and a server on it that the test's clients connect to.
class HostileClients : public LoopTest, public testing::WithParamInterface<Family> {
protected:
    HostileClients() {
        if (GetParam().number == AF_UNIX) {
            auto* unixAddress = reinterpret_cast<struct sockaddr_un*>(&address);
            unixAddress->sun_family = AF_UNIX;
            path.copy(unixAddress->sun_path, sizeof unixAddress->sun_path - 1);
            length = sizeof *unixAddress;
            server = loop->createUnixServer(path.c_str(), 0600);
        } else {
            // Another socket keeps the port, without listening, until the end.
            holder = socket(AF_INET, SOCK_STREAM, 0);
            const int on = 1;
            setsockopt(holder, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
            setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            address = loopback(AF_INET, 0);
            length = sizeof(struct sockaddr_in);
            EXPECT_EQ(bind(holder, asSockaddr(address), length), 0);
            getsockname(holder, reinterpret_cast<struct sockaddr*>(&address), &length);
            server = loop->createTCPServer(asSockaddr(address));
        }
    }

    ~HostileClients() override {
        stopLoop();
        if (holder != -1) close(holder);
    }

    // Every client becomes a stream with a block that makeBlock makes for it.
    template <typename MakeBlock>
    void serve(MakeBlock makeBlock) {
        ASSERT_NE(server, nullptr);
        loop->startObject(
            server, [this, makeBlock](const auto& /*server*/, const char* bytes, auto&&...) {
                const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
                const auto stream = loop->createStreamSocket(accepted->sock, true);
                if (!stream) return false;
                loop->startObject(stream, makeBlock(stream));
                return true;
            });
    }

    [[nodiscard]] int connectClient() const {
        const int sock = makeSocket(GetParam().number, SOCK_STREAM);
        EXPECT_EQ(connect(sock, asSockaddr(address), length), 0);
        return sock;
    }

    void expectEcho(int sock) const {
        std::array<char, 4> answer{};
        ASSERT_EQ(sendQuietly(sock, "ping"), 4);
        ASSERT_EQ(recv(sock, answer.data(), answer.size(), MSG_WAITALL), 4);
        EXPECT_EQ(std::string(answer.data(), answer.size()), "ping");
    }

    BlockTokens tokens;

private:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");
    struct sockaddr_storage address = {};
    socklen_t length = 0;
    int holder = -1;
    std::shared_ptr<HXKQueueEventProtocol> server;
};

INSTANTIATE_TEST_SUITE_P(Over, HostileClients,
                         testing::Values(Family{AF_UNIX, "Unix"}, Family{AF_INET, "Tcp"}),
                         [](const auto& instance) { return instance.param.name; });

TEST_P(HostileClients, ThatConnectAndVanishLeaveNothingBehind) {
    // Clients may come as fast as those that have vanished are heard of.
    const std::string lacking = raiseDescriptorLimit(stress::kConnections + 1'000);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const size_t before = openDescriptors();
    serve([this](const auto& /*stream*/) {
        return [this, token = tokens.issue()](const auto& source, const char* bytes, uint64_t size,
                                              auto* /*dropSize*/, int32_t code) {
            if (code == HXKQueueEventData) loop->write(source, bytes, size);
            if (code == HXKQueueEventTerminated) loop->stopObject(source);
            return true;
        };
    });
    for (size_t i = 0; i < stress::kConnections; ++i) {
        const int sock = connectClient();
        if (i % 2 == 0) sendQuietly(sock, "x");
        constexpr std::array kEnds{End::Closed, End::ClosedAbruptly, End::HalfClosedFirst};
        endConnection(sock, kEnds[i % kEnds.size()]);
        if (i % 100 != 99) continue;
        const int last = connectClient();
        expectEcho(last);  // so all before it have been accepted, and none has to try again
        close(last);
    }
    EXPECT_TRUE(tokens.waitUntilHeld(0)) << "not every end of a connection was heard of";
    settle();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(log.errors(), std::vector<std::string>());
    RecordProperty("clients", std::to_string(tokens.issued()));
}

// The limit that an owner sets is kept but for one read, whatever a client does.
TEST_P(HostileClients, ThatNeverReadAreDroppedAtTheLimitAndHoldUpNobody) {
    constexpr uint64_t kLimit = 1 << 20;
    std::atomic<uint64_t> mostQueued = 0;
    std::atomic<uint64_t> mostRead = 0;
    serve([&, this](const std::shared_ptr<HXKQueueStreamSocket>& stream) {
        return [&, this, weak = std::weak_ptr(stream)](const auto& source, const char* bytes,
                                                       uint64_t size, auto* /*dropSize*/,
                                                       int32_t code) {
            if (code == HXKQueueEventData) {
                loop->write(source, bytes, size);
                const uint64_t queued = weak.lock()->pendingBytes();
                mostQueued = std::max<uint64_t>(mostQueued, queued);
                mostRead = std::max<uint64_t>(mostRead, size);
                if (queued > kLimit) loop->stopObject(source);
            }
            if (code == HXKQueueEventTerminated) loop->stopObject(source);
            return true;
        };
    });
    const int other = connectClient();
    const std::string piece(65'536, 'x');
    for (int client = 0; client < 20; ++client) {
        const int sock = connectClient();
        while (sendQuietly(sock, piece) > 0) {
        }
        close(sock);
        expectEcho(other);
    }
    close(other);
    EXPECT_GT(mostQueued, kLimit);
    EXPECT_LE(mostQueued, kLimit + mostRead);
    RecordProperty("mostQueued", std::to_string(mostQueued));
    stopLoop();
}

// What one read brings is what the system holds for a connection; the peer waits for room there.
TEST_P(HostileClients, ThatSendWithoutEndAreReadInPiecesOfBoundedSize) {
    constexpr uint64_t kFlood = uint64_t{stress::kFrames} * 64;
    constexpr uint64_t kMostOfOneRead = 32 << 20;  // a TCP buffer grows to tens of megabytes
    std::atomic<uint64_t> received = 0;
    std::atomic<uint64_t> mostRead = 0;
    serve([&, this](const auto& /*stream*/) {
        return [&, this, token = tokens.issue()](const auto& source, const char* /*bytes*/,
                                                 uint64_t size, auto* /*dropSize*/, int32_t code) {
            if (code == HXKQueueEventData) received += size;
            mostRead = std::max<uint64_t>(mostRead, size);
            if (code == HXKQueueEventTerminated) loop->stopObject(source);
            return true;
        };
    });
    const int sock = connectClient();
    const std::string piece(1 << 20, 'x');
    uint64_t sent = 0;
    while (sent < kFlood) {
        const ssize_t size = sendQuietly(sock, piece);
        ASSERT_GT(size, 0);
        sent += static_cast<uint64_t>(size);
    }
    close(sock);
    while (received < sent)
        sched_yield();  // a byte that is lost would never let this end
    EXPECT_TRUE(tokens.waitUntilHeld(0));
    EXPECT_EQ(received, sent);
    EXPECT_LE(mostRead, kMostOfOneRead);
    RecordProperty("sent", std::to_string(sent));
    RecordProperty("mostRead", std::to_string(mostRead));
    stopLoop();
}

// Lines that come a byte at a time, from all clients by turns.
TEST_P(HostileClients, ThatTrickleTheirLinesAreUnderstood) {
    constexpr size_t kClients = 200;
    const std::string line = "the quick brown fox jumps over it\n";
    std::atomic<size_t> lines = 0;
    serve([&](const auto& /*stream*/) {
        return [&](const auto& source, const char* bytes, uint64_t size, uint64_t* dropSize,
                   int32_t code) {
            if (code == HXKQueueEventTerminated) loop->stopObject(source);
            if (code != HXKQueueEventData) return true;
            const size_t end = std::string_view(bytes, size).find('\n');
            *dropSize = end == std::string_view::npos ? 0 : end + 1;
            if (std::string_view(bytes, *dropSize) == line) ++lines;
            return true;
        };
    });
    std::vector<int> clients;
    for (size_t i = 0; i < kClients; ++i)
        clients.push_back(connectClient());
    for (const char& byte : line)
        for (const int sock : clients)
            ASSERT_EQ(sendQuietly(sock, {&byte, 1}), 1);
    while (lines < kClients)
        sched_yield();  // a line that is lost would never let this end
    EXPECT_EQ(lines, kClients);
    for (const int sock : clients)
        close(sock);
    stopLoop();
}

// Each order of ending the two directions, with bytes in between and behind.
TEST_P(HostileClients, ThatShutTheirDirectionsInAnyOrderAreHeardToEnd) {
    constexpr std::array<std::array<int, 3>, 5> kOrders{{{SHUT_RD, SHUT_WR, SHUT_RDWR},
                                                         {SHUT_WR, SHUT_RD, SHUT_WR},
                                                         {SHUT_RDWR, SHUT_RDWR, SHUT_RD},
                                                         {SHUT_RD, SHUT_RD, SHUT_WR},
                                                         {SHUT_WR, SHUT_WR, SHUT_RDWR}}};
    serve([this](const auto& /*stream*/) {
        return [this, token = tokens.issue()](const auto& source, const char* bytes, uint64_t size,
                                              auto* /*dropSize*/, int32_t code) {
            if (code == HXKQueueEventData) loop->write(source, bytes, size);
            if (code == HXKQueueEventTerminated) loop->stopObject(source);
            return true;
        };
    });
    for (const auto& order : kOrders) {
        const int sock = connectClient();
        expectEcho(sock);
        for (const int direction : order) {
            sendQuietly(sock, "x");
            shutdown(sock, direction);
        }
        EXPECT_TRUE(tokens.waitUntilHeld(0));
        close(sock);
    }
    EXPECT_EQ(tokens.issued(), kOrders.size());
    stopLoop();
}

using HostilePeer = LoopTest;

// The process is given none of them.
TEST_F(HostilePeer, ThatSendsDescriptorsAlongLeavesNone) {
    const Stream stream = makeStream();
    EventRecorder events;
    loop->startObject(stream.source, events.block());
    settle();
    const size_t before = openDescriptors();
    const UnixStream peer(stream.peer);
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(peer.sendDescriptor("x", stream.peer));
        if (i % 100 == 0) peer.waitUntilTaken();
    }
    ASSERT_TRUE(events.waitForBytes(500));
    peer.waitUntilTaken();
    settle();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
    stopLoop();
}

}  // namespace
