// Stops that meet everything else. Each race is run a thousand times, many at once.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <functional>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPClient.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/full_listener.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/quiet_send.h"

namespace {

constexpr const char* kSubsystem = "org.example.usb.virt.ctl";

// What a block has been told. Outlives the block.
struct Tally {
    std::atomic<size_t> calls = 0;
    std::atomic<size_t> data = 0;
    std::atomic<size_t> failures = 0;  // events that say the peer is gone, which it is not

    void count(int32_t code) {
        ++calls;
        if (code == HXKQueueEventTerminated || code == HXKQueueEventCannotConnect) ++failures;
        if (code != HXKQueueEventData) return;
        ++data;
        data.notify_all();
    }
};

using OnData = std::function<void(const std::shared_ptr<HXKQueueEventProtocol>& source,
                                  const char* bytes, uint64_t size, size_t number)>;

// A source that is going to be stopped, and the other end of its stream.
struct Racer {
    std::shared_ptr<HXKQueueStreamSocket> source;
    int sock = -1;
    int peer = -1;
    bool closesOnStop = false;
    std::shared_ptr<Tally> tally = std::make_shared<Tally>();
};

// Sends to every peer, and takes what it is sent, over and over until it is told to end.
class Traffic {
public:
    explicit Traffic(const std::vector<Racer>& racers)
        : thread([&racers, this] {
              while (!ending)
                  for (const Racer& racer : racers)
                      exchange(racer.peer);
          }) {}
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;
    ~Traffic() {
        ending = true;
        thread.join();
    }

private:
    void exchange(int peer) {
        sendQuietly(peer, {buffer.data(), 100}, MSG_DONTWAIT);
        recv(peer, buffer.data(), buffer.size(), MSG_DONTWAIT);
    }

    std::array<char, 16384> buffer{};
    std::atomic<bool> ending = false;
    std::thread thread;
};

class StopRace : public testing::Test {
protected:
    static constexpr size_t kAtOnce = 50;

    StopRace() : loop(HXKQueue::initWithSubsystem(kSubsystem)) {
        loop->start();
        descriptors = openDescriptors();
    }
    ~StopRace() override {
        EXPECT_EQ(openDescriptors(), descriptors);
        loop->stop();
        EXPECT_EQ(log.errors(), std::vector<std::string>());
    }

    // Returns once an iteration has begun and ended after this call.
    void passIteration() {
        for (int i = 0; i < 2; ++i) {
            BlockTokens marker;
            std::array<int, 2> ends{};
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
            const auto source = loop->createStreamSocket(ends[0], true);
            loop->startObject(source, [token = marker.issue()](auto&&...) { return true; });
            loop->stopObject(source);
            ASSERT_TRUE(marker.waitUntilHeld(0));
            close(ends[1]);
        }
    }

    // Runs the race with batches of started sources. Every second one's descriptor is the test's.
    void runRounds(const OnData& onData, const std::function<void(std::vector<Racer>&)>& race) {
        for (size_t round = 0; round < stress::kRounds; round += kAtOnce) {
            std::vector<Racer> racers(kAtOnce);
            for (size_t i = 0; i < kAtOnce; ++i)
                start(racers[i], i % 2 == 0, onData);
            {
                const Traffic traffic(racers);
                race(racers);
                ASSERT_TRUE(tokens.waitUntilHeld(0)) << "not every source was stopped";
            }
            expectSilence(racers);
            if (HasFailure()) return;
        }
    }

    static void waitForData(const std::vector<Racer>& racers) {
        for (const Racer& racer : racers)
            racer.tally->data.wait(0);
    }

    void stopAll(const std::vector<Racer>& racers) {
        for (const Racer& racer : racers)
            loop->stopObject(racer.source);
    }

    const LogRecorder log{LogLevel::Error};
    const std::shared_ptr<HXKQueue> loop;
    BlockTokens tokens;

private:
    void start(Racer& racer, bool closesOnStop, const OnData& onData) {
        std::array<int, 2> ends{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        racer.sock = ends[0];
        racer.peer = ends[1];
        racer.closesOnStop = closesOnStop;
        racer.source = loop->createStreamSocket(racer.sock, closesOnStop);
        loop->startObject(racer.source, [tally = racer.tally, onData, token = tokens.issue()](
                                            const auto& source, const char* bytes, uint64_t size,
                                            auto* /*dropSize*/, int32_t code) {
            tally->count(code);
            if (code == HXKQueueEventData) onData(source, bytes, size, tally->data);
            return true;
        });
    }

    // Once they are stopped, no block is called, whatever arrives; what was to be closed is, and
    // numbers that are handed out again are left alone.
    void expectSilence(const std::vector<Racer>& racers) {
        std::vector<size_t> calls;
        for (const Racer& racer : racers) {
            calls.push_back(racer.tally->calls);
            sendQuietly(racer.peer, "late", MSG_DONTWAIT);
            EXPECT_EQ(fcntl(racer.sock, F_GETFD) == -1, racer.closesOnStop);
        }
        std::vector<int> inTheirPlace;
        for (size_t i = 0; i < racers.size(); ++i)
            inTheirPlace.push_back(dup(racers.front().peer));
        passIteration();
        for (const int sock : inTheirPlace)
            EXPECT_EQ(close(sock), 0) << "closed once more than it was opened";
        for (size_t i = 0; i < racers.size(); ++i) {
            EXPECT_EQ(racers[i].tally->calls, calls[i]) << "called after the stop";
            EXPECT_EQ(racers[i].tally->failures, 0U);
            close(racers[i].peer);
            if (!racers[i].closesOnStop) close(racers[i].sock);
        }
    }

    size_t descriptors = 0;
};

TEST_F(StopRace, FromItsOwnBlock) {
    runRounds(
        [this](const auto& source, auto, auto, size_t number) {
            if (number == 3) loop->stopObject(source);
        },
        [](const auto&) {});
}

TEST_F(StopRace, FromAnotherThreadWhileEventsArrive) {
    runRounds([](auto&&...) {},
              [this](const std::vector<Racer>& racers) {
                  waitForData(racers);
                  stopAll(racers);
              });
}

TEST_F(StopRace, FromTwoThreadsStopsOnce) {
    runRounds([](auto&&...) {},
              [this](const std::vector<Racer>& racers) {
                  waitForData(racers);
                  std::barrier<> together(2);
                  const auto stopEach = [&] {
                      for (const Racer& racer : racers) {
                          together.arrive_and_wait();
                          loop->stopObject(racer.source);
                      }
                  };
                  std::thread other(stopEach);
                  stopEach();
                  other.join();
              });
}

TEST_F(StopRace, FromItsOwnBlockAndAnotherThreadStopsOnce) {
    runRounds([this](const auto& source, auto, auto, auto) { loop->stopObject(source); },
              [this](const std::vector<Racer>& racers) { stopAll(racers); });
}

TEST_F(StopRace, WhileDataFlowsInBothDirections) {
    const std::string much(300'000, 'm');
    runRounds([this](const auto& source, const char* bytes, uint64_t size,
                     auto) { loop->write(source, bytes, size); },
              [&](const std::vector<Racer>& racers) {
                  for (const Racer& racer : racers)
                      loop->write(racer.source, much.data(), much.size());
                  waitForData(racers);
                  stopAll(racers);
              });
}

TEST_F(StopRace, WhileAnotherThreadWrites) {
    runRounds([](auto&&...) {},
              [this](const std::vector<Racer>& racers) {
                  std::atomic<bool> ending = false;
                  std::thread writer([&] {
                      while (!ending)
                          for (const Racer& racer : racers)
                              loop->write(racer.source, "w", 1);
                  });
                  waitForData(racers);
                  stopAll(racers);
                  EXPECT_TRUE(tokens.waitUntilHeld(0));
                  ending = true;
                  writer.join();
              });
}

// Every second one is asked to stop at once, the others when the kernel has heard of them.
TEST_F(StopRace, WhileAConnectIsPending) {
    const FullListener listener;
    const size_t before = openDescriptors();
    for (size_t round = 0; round < stress::kRounds; round += kAtOnce) {
        std::vector<std::shared_ptr<HXKQueueTCPClient>> clients;
        Tally tally;
        for (size_t i = 0; i < kAtOnce; ++i) {
            clients.push_back(loop->createTCPClient(asSockaddr(listener.address())));
            ASSERT_NE(clients.back(), nullptr);
            loop->startObject(clients.back(), [&tally, token = tokens.issue()](auto&&, auto, auto,
                                                                               auto, int32_t code) {
                tally.count(code);
                return true;
            });
            loop->write(clients.back(), "queued", 6);
            if (i % 2 == 0) loop->stopObject(clients.back());
        }
        passIteration();
        for (const auto& client : clients)
            loop->stopObject(client);
        ASSERT_TRUE(tokens.waitUntilHeld(0));
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(tally.calls, 0U) << "the connect was not pending";
    }
}

// A loop whose two sources send each other what they receive, without end.
class BusyLoop {
public:
    explicit BusyLoop(BlockTokens& tokens) : loop(HXKQueue::initWithSubsystem(kSubsystem)) {
        loop->start();
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        for (size_t i = 0; i < ends.size(); ++i)
            sources[i] = loop->createStreamSocket(ends[i], true);
        for (const auto& source : sources)
            loop->startObject(source, [this, token = tokens.issue()](
                                          const auto& self, const char* bytes, uint64_t size, auto,
                                          int32_t code) { return echo(self, bytes, size, code); });
        loop->write(sources[0], first.data(), first.size());
    }

    void waitForTraffic() { tally.data.wait(0); }

    void disturb() { loop->write(sources[1], "d", 1); }

    void stop() {
        loop->stop();
        stopped = true;
    }

    [[nodiscard]] bool wasCalledAfterTheStop() const { return late; }
    [[nodiscard]] bool sawAFailure() const { return tally.failures > 0; }

private:
    bool echo(const std::shared_ptr<HXKQueueEventProtocol>& self, const char* bytes, uint64_t size,
              int32_t code) {
        if (stopped) late = true;
        tally.count(code);
        if (code == HXKQueueEventData) loop->write(self, bytes, size);
        return true;
    }

    const std::shared_ptr<HXKQueue> loop;
    const std::string first = std::string(10'000, 'b');
    std::array<std::shared_ptr<HXKQueueStreamSocket>, 2> sources;
    Tally tally;
    std::atomic<bool> stopped = false;
    std::atomic<bool> late = false;
};

// A stop takes a second, so many of them take it together.
TEST(LoopStopRace, UnderLoadFromItsSourcesAndAnotherThread) {
    const std::string lacking = raiseDescriptorLimit(4 * stress::kLoopsAtOnce);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const LogRecorder log(LogLevel::Error);
    const size_t before = openDescriptors();
    for (size_t round = 0; round < stress::kRounds; round += stress::kLoopsAtOnce) {
        BlockTokens tokens;
        std::vector<std::unique_ptr<BusyLoop>> loops;
        for (size_t i = 0; i < stress::kLoopsAtOnce; ++i)
            loops.push_back(std::make_unique<BusyLoop>(tokens));
        for (const auto& loop : loops)
            loop->waitForTraffic();
        std::atomic<bool> ending = false;
        std::thread disturber([&] {
            while (!ending)
                for (const auto& loop : loops)
                    loop->disturb();
        });
        std::vector<std::thread> stoppers;
        for (const auto& loop : loops)
            stoppers.emplace_back([&loop] { loop->stop(); });
        for (std::thread& stopper : stoppers)
            stopper.join();
        EXPECT_EQ(tokens.held(), 0U);
        ending = true;
        disturber.join();
        EXPECT_EQ(openDescriptors(), before);
        for (const auto& loop : loops) {
            EXPECT_FALSE(loop->wasCalledAfterTheStop());
            EXPECT_FALSE(loop->sawAFailure());
        }
        if (HasFailure()) return;
    }
    EXPECT_EQ(log.errors(), std::vector<std::string>());
}

}  // namespace
