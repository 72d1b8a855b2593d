#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <semaphore>
#include <vector>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using Threads = FailingAllocations::Threads;
using Extent = FailingAllocations::Extent;

using Message = std::array<char, 64>;

bool sendTo(int peer) {
    Message message;
    message.fill('m');
    return write(peer, message.data(), message.size()) == ssize_t{sizeof message};
}

bool receiveAt(int peer) {
    Message message;
    return recv(peer, message.data(), message.size(), MSG_WAITALL) == ssize_t{sizeof message};
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
            allRight = sendTo(peer) && allRight;
        released.release();
        for (const int peer : peers)
            allRight = receiveAt(peer) && allRight;
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
        allRight = sendTo(peer) && receiveAt(peer) && allRight;
    first.end();
    EXPECT_FALSE(first.happened());
    EXPECT_TRUE(allRight);
}

TEST_F(SteadyState, PeriodicTimerAllocatesNothing) {
    std::counting_semaphore<> ticks{0};
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, [&](auto&&...) {
        ticks.release();
        return true;
    });
    for (int i = 0; i < 3; ++i)
        ticks.acquire();
    FailingAllocations first(1, Extent::OnlyThatOne, Threads::All);
    for (int i = 0; i < 10; ++i)
        ticks.acquire();
    first.end();
    EXPECT_FALSE(first.happened());
    stopLoop();
}

}  // namespace
