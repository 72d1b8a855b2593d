// Peers that are out to harm a server, or what it serves others with.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/echoing_server.h"
#include "tests/kqueue/endpoint.h"
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

// A loop, and a server on it that the test's clients connect to.
class HostileClients : public LoopTest, public testing::WithParamInterface<Transport> {
protected:
    ~HostileClients() override { stopLoop(); }

    // Every client becomes a stream with a block that makeBlock makes for it.
    template <typename MakeBlock>
    void serve(MakeBlock makeBlock) {
        ASSERT_NE(server, nullptr);
        loop->startObject(
            server, [this, makeBlock](const auto& /*server*/, const char* bytes, auto&&...) {
                const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
                if (bufferBytes > 0) setBuffers(accepted->sock);
                const auto stream = loop->createStreamSocket(accepted->sock, true);
                if (!stream) return false;
                loop->startObject(stream, makeBlock(stream));
                return true;
            });
    }

    [[nodiscard]] int connectClient() const {
        const int sock = endpoint->connectedSocket();
        if (bufferBytes > 0) setBuffers(sock);
        return sock;
    }

    void expectEcho(int sock) const {
        std::array<char, 4> answer{};
        ASSERT_EQ(sendQuietly(sock, "ping"), 4);
        ASSERT_EQ(recv(sock, answer.data(), answer.size(), MSG_WAITALL), 4);
        EXPECT_EQ(std::string(answer.data(), answer.size()), "ping");
    }

    BlockTokens tokens;
    int bufferBytes = 0;  // of either end of each connection, each way; 0: what the system thinks

private:
    void setBuffers(int sock) const {
        for (const int option : {SO_RCVBUF, SO_SNDBUF})
            EXPECT_EQ(setsockopt(sock, SOL_SOCKET, option, &bufferBytes, sizeof bufferBytes), 0);
    }

    const std::unique_ptr<Endpoint> endpoint = GetParam().makeEndpoint();
    const std::shared_ptr<HXKQueueEventProtocol> server = endpoint->listenOn(*loop);
};

INSTANTIATE_TEST_SUITE_P(Over, HostileClients, testing::ValuesIn(kTransports),
                         [](const auto& instance) { return instance.param.name; });

TEST_P(HostileClients, ThatConnectAndVanishLeaveNothingBehind) {
    // Clients may come as fast as those that have vanished are heard of.
    const std::string lacking = raiseDescriptorLimit(stress::kConnections + 1'000);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const size_t before = openDescriptors();
    serve([this](const auto& /*stream*/) { return echoing(*loop, tokens); });
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
        while (sendQuietly(sock, piece) > 0 && !HasFatalFailure())
            expectEcho(other);
        close(sock);
    }
    close(other);
    EXPECT_GT(mostQueued, kLimit);
    EXPECT_LE(mostQueued, kLimit + mostRead);
    RecordProperty("mostQueued", std::to_string(mostQueued));
    stopLoop();
}

// What one read brings is what the system holds for a connection, in the buffers of its two ends,
// each of which may be twice what was asked for. The peer waits for room there.
TEST_P(HostileClients, ThatSendWithoutEndAreReadInPiecesOfBoundedSize) {
    constexpr uint64_t kFlood = uint64_t{stress::kFrames} * 64;
    bufferBytes = 128 << 10;
    const uint64_t mostOfOneRead = 4 * static_cast<uint64_t>(bufferBytes);
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
    EXPECT_TRUE(tokens.waitUntilHeld(0)) << "the end was not heard of";
    EXPECT_EQ(received, sent);
    EXPECT_LE(mostRead, mostOfOneRead);
    RecordProperty("sent", std::to_string(sent));
    RecordProperty("mostRead", std::to_string(mostRead));
    stopLoop();
}

// Lines that come a byte at a time, from all clients by turns.
TEST_P(HostileClients, ThatTrickleTheirLinesAreUnderstood) {
    constexpr size_t kClients = 200;
    const std::string line = "the quick brown fox jumps over it\n";
    std::atomic<size_t> lines = 0;
    serve([&, this](const auto& /*stream*/) {
        return [&, this, token = tokens.issue()](const auto& source, const char* bytes,
                                                 uint64_t size, uint64_t* dropSize, int32_t code) {
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
    EXPECT_TRUE(tokens.waitUntilIssued(kClients)) << "not every client was accepted";
    for (const int sock : clients)
        close(sock);
    EXPECT_TRUE(tokens.waitUntilHeld(0)) << "not every end of a connection was heard of";
    EXPECT_EQ(lines, kClients);
    stopLoop();
}

// Each order of ending the two directions, with bytes in between and behind.
TEST_P(HostileClients, ThatShutTheirDirectionsInAnyOrderAreHeardToEnd) {
    constexpr std::array<std::array<int, 3>, 5> kOrders{{{SHUT_RD, SHUT_WR, SHUT_RDWR},
                                                         {SHUT_WR, SHUT_RD, SHUT_WR},
                                                         {SHUT_RDWR, SHUT_RDWR, SHUT_RD},
                                                         {SHUT_RD, SHUT_RD, SHUT_WR},
                                                         {SHUT_WR, SHUT_WR, SHUT_RDWR}}};
    serve([this](const auto& /*stream*/) { return echoing(*loop, tokens); });
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
