#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/descriptor_limit.h"

namespace {

using Load = LoopTest;

// Bytes that no shift or loss leaves looking the same.
std::string numberedBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 2'654'435'761U) >> 13);
    return bytes;
}

std::array<int, 2> tcpPair() {
    struct sockaddr_storage address = loopback(AF_INET, 0);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(listener, asSockaddr(address), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    socklen_t length = sizeof(sockaddr_in);
    getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(client, asSockaddr(address), length), 0);
    const int accepted = accept(listener, nullptr, nullptr);
    close(listener);
    return {client, accepted};
}

std::array<int, 2> unixPair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    return ends;
}

class SlowReader : public LoopTest, public testing::WithParamInterface<std::array<int, 2> (*)()> {};

INSTANTIATE_TEST_SUITE_P(UnixAndTcp, SlowReader, testing::Values(unixPair, tcpPair));

// The reader takes its next piece only after the other source has had an answer, so a thread that
// blocks in a write would be seen by the other source going silent.
TEST_P(SlowReader, HoldsUpNeitherTheLoopNorOtherSourcesAndGetsEveryByte) {
    const std::string sent = numberedBytes(10 << 20);
    const std::array<int, 2> ends = GetParam()();
    EventRecorder events;
    const auto source = loop->createStreamSocket(ends[0], true);
    loop->startObject(source, events.block());

    EventRecorder echoed;
    const Stream other = makeStream();
    loop->startObject(other.source, echoed.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) loop->write(event.source, "pong", 4);
        return true;
    }));

    loop->write(source, sent.data(), sent.size());
    std::string received;
    std::string piece(300'000, '\0');
    while (received.size() < sent.size()) {
        std::array<char, 4> answer{};
        ASSERT_EQ(::write(other.peer, "ping", 4), 4);
        ASSERT_EQ(recv(other.peer, answer.data(), 4, MSG_WAITALL), 4);
        const ssize_t size = read(ends[1], piece.data(), piece.size());
        ASSERT_GT(size, 0);
        received.append(piece, 0, static_cast<size_t>(size));
    }
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
    stopLoop();
    close(ends[1]);
    close(other.peer);
}

// The peer never reads, yet the loop goes on.
TEST_P(SlowReader, ThatNeverReadsHoldsUpNobody) {
    const std::string sent = numberedBytes(10 << 20);
    const std::array<int, 2> ends = GetParam()();
    EventRecorder events;
    const auto source = loop->createStreamSocket(ends[0], true);
    loop->startObject(source, events.block());
    loop->write(source, sent.data(), sent.size());
    for (int i = 0; i < 20; ++i)
        settle();
    stopLoop();
    close(ends[1]);
}

// Sends every byte back, and stops once the client is gone.
bool echo(HXKQueue& loop, const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
          uint64_t size, int32_t code) {
    if (code == HXKQueueEventData) loop.write(source, bytes, size);
    if (code == HXKQueueEventTerminated) loop.stopObject(source);
    return true;
}

TEST_F(Load, TenThousandClientsConnectTalkAndStopWithoutLeavingADescriptor) {
    // Two batches may be there at once, with both ends of every connection.
    const std::string lacking = raiseDescriptorLimit(500);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const TemporaryDirectory directory;
    const std::string path = directory.file("socket");
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, [this](const auto&, const char* bytes, auto, auto, auto) {
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        loop->startObject(
            loop->createStreamSocket(accepted->sock, true),
            [this](const auto& source, const char* received, uint64_t size, auto, int32_t code) {
                return echo(*loop, source, received, size, code);
            });
        return true;
    });
    settle();
    const size_t before = openDescriptors();
    EventRecorder echoed;
    for (size_t batch = 1; batch <= 100; ++batch) {
        std::vector<std::shared_ptr<HXKQueueUnixClient>> clients;
        for (int i = 0; i < 100; ++i) {
            clients.push_back(loop->createUnixClient(path.c_str()));
            ASSERT_NE(clients.back(), nullptr);
            loop->startObject(clients.back(), echoed.block());
            loop->write(clients.back(), "x", 1);
        }
        ASSERT_TRUE(echoed.waitForBytes(batch * clients.size()));
        for (const auto& client : clients)
            loop->stopObject(client);
    }
    EXPECT_EQ(echoed.allBytes(), std::string(10'000, 'x'));
    loop->stopObject(server);
    while (openDescriptors() != before - 1)
        settle();  // the server's ends hear of their clients' ends; a leak would never let this end
}

TEST(LoadOnDescriptors, HundredLoopsComeAndGoWithoutLeavingOne) {
    const size_t before = openDescriptors();
    std::vector<std::thread> threads;
    for (int t = 0; t < 100; ++t)
        threads.emplace_back([] {
            const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
            loop->start();
            loop->stop();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
