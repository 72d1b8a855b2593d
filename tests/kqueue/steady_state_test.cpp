#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <semaphore>
#include <vector>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using Threads = FailingAllocations::Threads;
using Extent = FailingAllocations::Extent;

// Where an allocation fails, what is waited for may never come.
constexpr std::chrono::milliseconds kPatience{10'000};

using Message = std::array<char, 64>;

bool sendTo(int peer) {
    Message message;
    message.fill('m');
    return write(peer, message.data(), message.size()) == ssize_t{sizeof message};
}

bool receiveAt(int peer) {
    Message message;
    pollfd arrival{.fd = peer, .events = POLLIN, .revents = 0};
    for (size_t received = 0; received < message.size();) {
        if (poll(&arrival, 1, static_cast<int>(kPatience.count())) != 1) return false;
        const ssize_t count = read(peer, message.data(), message.size() - received);
        if (count <= 0) return false;
        received += static_cast<size_t>(count);
    }
    return true;
}

// What every event goes through has found its size once events have come in numbers.
class SteadyState : public LoopTest {
protected:
    static constexpr size_t kConnections = 100;

    void startEchoing() {
        for (size_t i = 0; i < kConnections; ++i) {
            const Stream stream = makeStream();
            loop->startObject(stream.source, [this](const auto& source, const char* bytes,
                                                    uint64_t size, auto* /*drop*/, int32_t code) {
                if (code == HXKQueueEventData) loop->write(source, bytes, size);
                return true;
            });
            peers.push_back(stream.peer);
        }
    }

    // A message for each connection, all within one iteration: until they are sent, the I/O thread
    // is held in a block.
    [[nodiscard]] bool exchangeTogether() {
        std::binary_semaphore held{0};
        std::binary_semaphore released{0};
        const auto holding = loop->createTimer(0, true);
        loop->startObject(holding, [&](auto&&...) {
            held.release();
            released.acquire();
            return true;
        });
        held.acquire();
        bool allRight = true;
        for (const int peer : peers)
            allRight = allRight && sendTo(peer);
        released.release();
        for (const int peer : peers)
            allRight = allRight && receiveAt(peer);
        loop->stopObject(holding);
        settle();
        return allRight;
    }

    ~SteadyState() override {
        for (const int peer : peers)
            close(peer);
    }

    std::vector<int> peers;
};

TEST_F(SteadyState, EchoingAMessageAllocatesNothing) {
    startEchoing();
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(exchangeTogether());
    FailingAllocations first(1, Extent::OnlyThatOne, Threads::All);
    bool allRight = true;
    for (const int peer : peers)
        allRight = allRight && sendTo(peer) && receiveAt(peer);
    first.end();
    EXPECT_FALSE(first.happened()) << "an allocation";
    EXPECT_TRUE(allRight) << "an echo that does not come";
}

TEST_F(SteadyState, PeriodicTimerAllocatesNothing) {
    std::counting_semaphore<> ticks{0};
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, [&](auto&&...) {
        ticks.release();
        return true;
    });
    const auto passed = [&](int count) {
        bool allCame = true;
        for (int i = 0; i < count; ++i)
            allCame = allCame && ticks.try_acquire_for(kPatience);
        return allCame;
    };
    EXPECT_TRUE(passed(3));
    FailingAllocations first(1, Extent::OnlyThatOne, Threads::All);
    const bool allCame = passed(10);
    first.end();
    EXPECT_FALSE(first.happened()) << "an allocation";
    EXPECT_TRUE(allCame) << "an expiry that does not come";
    stopLoop();
}

}  // namespace
