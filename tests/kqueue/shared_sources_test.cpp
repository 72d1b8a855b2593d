// Eight threads that start, write to and stop the same sources.

#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <future>
#include <set>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptor_limit.h"

namespace {

constexpr size_t kThreads = 8;
constexpr size_t kMessagesOfEach = 10;  // by every thread to every source

// Sources come and go in waves: while one wave is written to, the one before is stopped.
constexpr size_t kWave = stress::kSharedSources / 2;
constexpr size_t kWaves = stress::kThreadSanitizer || kEmulated ? 4 : 12;

// What stands in front of each message's bytes.
struct Label {
    uint32_t connection;
    uint32_t thread;
    uint32_t number;  // of this thread's messages to this connection
    uint32_t size;    // of the bytes that follow
};

char byteAt(const Label& label, size_t index) {
    const size_t seed = label.connection * 1'000'003U + label.thread * 10'007U + label.number;
    return static_cast<char>(((seed + index) * 2'654'435'761U) >> 13);
}

// Some are larger than a socket's buffer, so that they arrive in pieces.
std::string message(uint32_t connection, uint32_t thread, uint32_t number) {
    const bool large = (connection + thread + number) % 500 == 0;
    const uint32_t size = large ? 300'000 : (connection * 7 + thread * 11 + number * 13) % 200;
    const Label label = {connection, thread, number, size};
    std::string bytes(reinterpret_cast<const char*>(&label), sizeof label);
    for (size_t i = 0; i < size; ++i)
        bytes += byteAt(label, i);
    return bytes;
}

// Reads the messages of one connection, and insists that they are of no other, that none of a
// thread's is missing, and that every byte is right.
class MessageReader {
public:
    explicit MessageReader(uint32_t connection_) : connection(connection_) {}

    // How many bytes were whole messages.
    uint64_t read(const char* bytes, uint64_t size) {
        uint64_t consumed = 0;
        while (failure.empty() && readOne(bytes + consumed, size - consumed, consumed))
            ++messages;
        return consumed;
    }

    uint32_t connection;
    size_t messages = 0;
    std::string failure;

private:
    bool readOne(const char* bytes, uint64_t size, uint64_t& consumed) {
        Label label;
        if (size < sizeof label) return false;
        std::memcpy(&label, bytes, sizeof label);
        if (label.connection != connection)
            failure = "got bytes of connection " + std::to_string(label.connection);
        else if (label.thread >= kThreads || label.number != next[label.thread])
            failure = "a thread's messages are not in order";
        if (!failure.empty() || size < sizeof label + label.size) return false;
        for (size_t i = 0; i < label.size; ++i)
            if (bytes[sizeof label + i] != byteAt(label, i)) failure = "a byte is wrong";
        ++next[label.thread];
        consumed += sizeof label + label.size;
        return true;
    }

    std::array<uint32_t, kThreads> next{};
};

// A source that all threads use, and a peer, on another loop, that sends back what it has checked.
struct Connection {
    explicit Connection(uint32_t number_)
        : number(number_), atPeer(number_), atSource(number_), echoed(done.get_future()) {}

    // Every fourth is stopped without a wait for what was written to it.
    [[nodiscard]] bool isHasty() const { return number % 4 == 3; }

    const uint32_t number;
    std::shared_ptr<HXKQueueEventProtocol> source;
    std::shared_ptr<HXKQueueEventProtocol> peer;
    MessageReader atPeer;    // the peers' I/O thread's
    MessageReader atSource;  // the sources' I/O thread's
    std::atomic<size_t> connectedEvents = 0;
    std::atomic<bool> foreignSource = false;  // a block was called for another source
    std::promise<void> done;
    std::shared_future<void> echoed;  // all messages are back
};

constexpr size_t kMessagesOfAll = kThreads * kMessagesOfEach;

class SharedSources : public testing::Test {
protected:
    SharedSources() {
        sources->start();
        peers->start();
        for (uint32_t i = 0; i < kWaves * kWave; ++i)
            connections.push_back(std::make_unique<Connection>(i));
    }

    void makeWave(size_t wave, size_t thread) {
        for (size_t i = thread; i < kWave; i += kThreads)
            make(*connections[wave * kWave + i]);
    }

    void talkToWave(size_t wave, uint32_t thread) {
        forEachOf(wave, thread, [&](Connection& connection) {
            sources->startObject(connection.source, sourceBlock(connection));
            for (uint32_t number = 0; number < kMessagesOfEach; ++number) {
                const std::string bytes = message(connection.number, thread, number);
                sources->write(connection.source, bytes.data(), bytes.size());
            }
            if (connection.isHasty()) sources->stopObject(connection.source);
        });
    }

    void stopWave(size_t wave, size_t thread) {
        forEachOf(wave, thread, [&](const Connection& connection) {
            if (!connection.isHasty()) {
                const std::shared_future<void> echoed = connection.echoed;
                if (echoed.wait_for(std::chrono::minutes(1)) != std::future_status::ready)
                    ADD_FAILURE() << "connection " << connection.number << " has lost messages";
            }
            sources->stopObject(connection.source);
        });
    }

    // Nothing keeps the sources of a wave but the loop.
    void letGoOfWave(size_t wave, size_t thread) {
        for (size_t i = thread; i < kWave; i += kThreads) {
            connections[wave * kWave + i]->source = nullptr;
            connections[wave * kWave + i]->peer = nullptr;
        }
    }

    const LogRecorder log{LogLevel::Error};
    const std::shared_ptr<HXKQueue> sources = HXKQueue::initWithSubsystem("org.example.sources");
    const std::shared_ptr<HXKQueue> peers = HXKQueue::initWithSubsystem("org.example.peers");
    std::vector<std::unique_ptr<Connection>> connections;
    BlockTokens tokens;

    std::mutex lock;
    std::multiset<int> numbers;            // of the sources' descriptors; guarded by lock
    std::multiset<const void*> addresses;  // of the sources; guarded by lock

private:
    void make(Connection& connection) {
        std::array<int, 2> ends{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        connection.source = sources->createStreamSocket(ends[0], true);
        connection.peer = peers->createStreamSocket(ends[1], true);
        {
            const std::lock_guard guard(lock);
            numbers.insert(ends[0]);
            addresses.insert(connection.source.get());
        }
        peers->startObject(connection.peer, peerBlock(connection));
    }

    HXKQueueEventBlock peerBlock(Connection& connection) {
        return [this, &connection, self = connection.peer.get(), token = tokens.issue()](
                   const auto& source, const char* bytes, uint64_t size, uint64_t* dropSize,
                   int32_t code) {
            if (source.get() != self) connection.foreignSource = true;
            if (code == HXKQueueEventData) {
                *dropSize = connection.atPeer.read(bytes, size);
                peers->write(source, bytes, *dropSize);
            }
            if (code == HXKQueueEventTerminated) {
                *dropSize = 0;  // more may come after an echo that has failed
                peers->stopObject(source);
            }
            return true;
        };
    }

    HXKQueueEventBlock sourceBlock(Connection& connection) {
        return [&connection, self = connection.source.get(), token = tokens.issue()](
                   const auto& source, const char* bytes, uint64_t size, uint64_t* dropSize,
                   int32_t code) {
            if (source.get() != self) connection.foreignSource = true;
            if (code == HXKQueueEventConnected) ++connection.connectedEvents;
            if (code == HXKQueueEventData) {
                const size_t before = connection.atSource.messages;
                *dropSize = connection.atSource.read(bytes, size);
                if (before < kMessagesOfAll && connection.atSource.messages == kMessagesOfAll)
                    connection.done.set_value();
            }
            return true;
        };
    }

    // Each thread begins elsewhere, and goes round.
    template <typename Action>
    void forEachOf(size_t wave, size_t thread, Action action) {
        for (size_t i = 0; i < kWave; ++i)
            action(*connections[wave * kWave + (i + thread * kWave / kThreads) % kWave]);
    }
};

TEST_F(SharedSources, OfEightThreadsLoseAndMixUpNothingWhileAddressesAndNumbersAreReused) {
    const std::string lacking = raiseDescriptorLimit(4 * kWave + 1'000);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const size_t before = openDescriptors();
    std::barrier<> together(kThreads);
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (size_t wave = 0; wave <= kWaves; ++wave) {
                if (wave < kWaves) makeWave(wave, thread);
                together.arrive_and_wait();
                if (wave < kWaves) talkToWave(wave, thread);
                if (wave > 0) stopWave(wave - 1, thread);
                together.arrive_and_wait();
                if (wave > 0) letGoOfWave(wave - 1, thread);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(tokens.waitUntilHeld(0)) << "not every source was stopped";
    EXPECT_EQ(openDescriptors(), before);
    std::thread other([this] { peers->stop(); });
    sources->stop();
    other.join();

    for (const auto& connection : connections) {
        SCOPED_TRACE(connection->number);
        EXPECT_EQ(connection->atPeer.failure, "");
        EXPECT_EQ(connection->atSource.failure, "");
        EXPECT_FALSE(connection->foreignSource);
        // A stop may take a block away before it has been told anything.
        if (connection->isHasty()) continue;
        EXPECT_EQ(connection->connectedEvents, kThreads);
        EXPECT_EQ(connection->atPeer.messages, kMessagesOfAll);
        EXPECT_EQ(connection->atSource.messages, kMessagesOfAll);
    }
    EXPECT_EQ(log.errors(), std::vector<std::string>());
    const auto reused = [](const auto& all) {
        return all.size() - std::set(all.begin(), all.end()).size();
    };
    EXPECT_GE(reused(numbers), connections.size() / 10);
    // How many addresses come again is up to the allocator. The address sanitizer keeps back what
    // is freed, and so, as it pleases, does the thread sanitizer.
    if (!stress::kAddressSanitizer && !stress::kThreadSanitizer) {
        EXPECT_GE(reused(addresses), connections.size() / 100);
    }
    RecordProperty("numbersReused", std::to_string(reused(numbers)));
    RecordProperty("addressesReused", std::to_string(reused(addresses)));
}

}  // namespace
