// Signals that come as fast as they can, while a loop works.

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <ostream>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/loop_fixture.h"

namespace {

constexpr int kSignal = SIGUSR1;

std::atomic<size_t> handledByTheLoop = 0;
std::atomic<size_t> handledByOthers = 0;
thread_local volatile bool isTheLoop = false;

void maskSignal(int how) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, kSignal);
    pthread_sigmask(how, &one, nullptr);
}

// A thread that has the signal blocked, and does the same until the end of this object.
class Steadily {
public:
    template <typename Action>
    explicit Steadily(Action action)
        : thread([this, action] {
              maskSignal(SIG_BLOCK);
              while (!ended)
                  action();
          }) {}
    Steadily(const Steadily&) = delete;
    Steadily& operator=(const Steadily&) = delete;
    ~Steadily() {
        ended = true;
        thread.join();
    }

private:
    std::atomic<bool> ended = false;
    std::thread thread;
};

struct Handling {
    int flags;
    const char* name;

    // How the list of tests shows it.
    friend void PrintTo(const Handling& handling, std::ostream* out) { *out << handling.name; }
};

class SignalStorm : public LoopTest, public testing::WithParamInterface<Handling> {
protected:
    SignalStorm() {
        handledByTheLoop = 0;
        handledByOthers = 0;
        struct sigaction action = {};
        action.sa_flags = GetParam().flags;
        action.sa_handler = [](int) { ++(isTheLoop ? handledByTheLoop : handledByOthers); };
        sigaction(kSignal, &action, nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(Handled, SignalStorm,
                         testing::Values(Handling{SA_RESTART, "RestartingCalls"},
                                         Handling{0, "InterruptingCalls"}),
                         [](const auto& instance) { return instance.param.name; });

// The library's thread has the signal blocked, so the owner's block lets it in.
TEST_P(SignalStorm, DisturbsNeitherTheLoopNorItsOwnersThread) {
    constexpr size_t kRounds = 50;
    const std::string message = "0123456789";
    EventRecorder ticks;
    std::atomic<pthread_t> loopThread{};
    const auto timer = loop->createTimer(1, false);
    loop->startObject(timer, ticks.block([&loopThread](const auto& /*event*/, auto* /*dropSize*/) {
        isTheLoop = true;
        loopThread = pthread_self();
        maskSignal(SIG_UNBLOCK);
        return true;
    }));
    ASSERT_TRUE(ticks.waitFor(HXKQueueEventData));

    const Stream stream = makeStream();
    EventRecorder events;
    const Steadily storm([] {
        kill(getpid(), kSignal);
        sched_yield();
    });
    {
        const Steadily stormOnTheLoop([&loopThread] {
            pthread_kill(loopThread, kSignal);
            sched_yield();
        });
        const Steadily echo([peer = stream.peer] {
            std::array<char, 64> bytes;
            const ssize_t size = recv(peer, bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (size > 0) send(peer, bytes.data(), static_cast<size_t>(size), 0);
            sched_yield();
        });
        loop->startObject(stream.source, events.block());
        for (size_t round = 1; round <= kRounds; ++round) {
            loop->write(stream.source, message.data(), message.size());
            ASSERT_TRUE(events.waitForBytes(round * message.size()));
        }
        ASSERT_TRUE(ticks.waitFor(HXKQueueEventData, kRounds));
    }
    loop->stopObject(stream.source);
    stopLoop();
    std::string all;
    for (size_t round = 0; round < kRounds; ++round)
        all += message;
    EXPECT_EQ(events.allBytes(), all);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
    EXPECT_EQ(log.errors(), std::vector<std::string>());
    EXPECT_GT(handledByTheLoop, 0U);
    EXPECT_GT(handledByOthers, 0U);
    RecordProperty("handledByTheLoop", std::to_string(handledByTheLoop));
    RecordProperty("handledByOthers", std::to_string(handledByOthers));
    close(stream.peer);
}

}  // namespace
