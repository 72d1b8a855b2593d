#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <random>
#include <thread>

#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/counted_allocations.h"
#include "tests/kqueue/echoing_server.h"
#include "tests/kqueue/endpoint.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/kqueue/thread_count.h"
#include "tests/support/descriptors.h"
#include "tests/support/how_many.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};
constexpr size_t kMostStreams = 200;
constexpr size_t kMostTimers = 500;
constexpr size_t kLargestPiece = 20'000;
constexpr uint64_t kMostUnderWay = 500'000;

// Until everything is brought to an end, and all must be as it was.
constexpr uint64_t kStepsOfARound = 20'000;

// So many that there has been something of everything, however short the time.
constexpr uint64_t kLeastSteps = 2'000;

// Room for what the C++ library keeps for itself once it has needed it.
constexpr size_t kToleranceInBytes = 4 << 10;

// Sanitizers and emulators have memory of their own in the process.
constexpr size_t kResidentToleranceInBytes =
    stress::kAddressSanitizer || stress::kThreadSanitizer || kEmulated ? size_t{1} << 30 : 8 << 20;

// With it comes one of the thread sanitizer's own, which stays.
void makeFirstThread() {
    std::string entry = "/proc/self/task/";
    std::thread([&entry] { entry += std::to_string(gettid()); }).join();
    while (access(entry.c_str(), F_OK) == 0)
        std::this_thread::yield();
}

// Without what malloc keeps for later.
size_t residentBytes() {
    malloc_trim(0);
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// The bytes of one stream: its numbers, one after the other, of which every stream has its own.
class Sequence {
public:
    explicit Sequence(uint64_t key_) : key(key_) {}

    [[nodiscard]] char at(uint64_t offset) const {
        const uint64_t number = (key + offset / 8) * 0x9e3779b97f4a7c15U;
        return static_cast<char>((number ^ number >> 29) >> 8 * (offset % 8));
    }

    [[nodiscard]] std::string bytes(uint64_t offset, size_t size) const {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i)
            bytes[i] = at(offset + i);
        return bytes;
    }

    [[nodiscard]] bool goesOnWith(const char* bytes, uint64_t size, uint64_t offset) const {
        for (uint64_t i = 0; i < size; ++i)
            if (bytes[i] != at(offset + i)) return false;
        return true;
    }

private:
    uint64_t key;
};

// A stream whose other end sends everything back.
class EchoedStream {
public:
    EchoedStream(HXKQueue& loop_, std::shared_ptr<HXKQueueEventProtocol> source_, uint64_t key,
                 BlockTokens& tokens)
        : loop(&loop_),
          source(std::move(source_)),
          sequence(key),
          state(std::make_shared<State>()) {
        loop->startObject(source, [sequence = sequence, state = state, token = tokens.issue()](
                                      const auto& /*source*/, const char* bytes, uint64_t size,
                                      auto* /*dropSize*/, int32_t code) {
            const std::lock_guard guard(state->lock);
            if (code == HXKQueueEventTerminated || code == HXKQueueEventCannotConnect)
                state->failure = "ended by itself";
            else if (!sequence.goesOnWith(bytes, size, state->received))
                state->failure = "other bytes than were sent";
            state->received += size;
            state->changed.notify_all();
            return true;
        });
    }

    void send(size_t size) {
        const std::string bytes = sequence.bytes(sent, size);
        loop->write(source, bytes.data(), bytes.size());
        sent += size;
    }

    // How much of what was sent is not back.
    [[nodiscard]] uint64_t underWay() const {
        const std::lock_guard guard(state->lock);
        return sent - std::min(sent, state->received);
    }

    // Empty once everything that was sent is back, or else what went wrong.
    [[nodiscard]] std::string waitForAll() const {
        std::unique_lock guard(state->lock);
        const bool came = state->changed.wait_for(guard, kPatience, [this] {
            return state->received >= sent || !state->failure.empty();
        });
        if (!state->failure.empty()) return state->failure;
        if (came && state->received == sent) return "";
        return std::to_string(state->received) + " bytes of " + std::to_string(sent);
    }

    void stop() const { loop->stopObject(source); }
    [[nodiscard]] uint64_t bytesSent() const { return sent; }

private:
    struct State {
        std::mutex lock;
        std::condition_variable changed;
        uint64_t received = 0;  // guarded by lock
        std::string failure;    // guarded by lock
    };

    HXKQueue* loop;
    std::shared_ptr<HXKQueueEventProtocol> source;
    Sequence sequence;
    uint64_t sent = 0;
    std::shared_ptr<State> state;
};

class CountedTimer {
public:
    CountedTimer(HXKQueue& loop_, uint64_t ms, bool oneShot_, BlockTokens& tokens)
        : loop(&loop_),
          source(loop->createTimer(ms, oneShot_)),
          oneShot(oneShot_),
          state(std::make_shared<State>()) {
        loop->startObject(source, [state = state, token = tokens.issue()](auto&&...) {
            const std::lock_guard guard(state->lock);
            ++state->fired;
            state->changed.notify_all();
            return true;
        });
    }

    [[nodiscard]] bool hasFired() const {
        const std::lock_guard guard(state->lock);
        return state->fired > 0;
    }

    [[nodiscard]] std::string waitUntilFired() const {
        std::unique_lock guard(state->lock);
        if (!state->changed.wait_for(guard, kPatience, [this] { return state->fired > 0; }))
            return "a timer that does not fire";
        return oneShot && state->fired > 1 ? "a timer that fires twice" : "";
    }

    void stop() const { loop->stopObject(source); }

private:
    struct State {
        std::mutex lock;
        std::condition_variable changed;
        uint64_t fired = 0;  // guarded by lock
    };

    HXKQueue* loop;
    std::shared_ptr<HXKQueueTimer> source;
    bool oneShot;
    std::shared_ptr<State> state;
};

// Streams and timers on one loop.
class Crowd {
public:
    Crowd(HXKQueue& loop_, uint64_t seed) : loop(loop_), random(seed) {
        for (const Endpoint* endpoint : endpoints) {
            servers.push_back(endpoint->listenOn(loop));
            loop.startObject(servers.back(), echoingServer(loop, tokens));
        }
    }

    // Returns once the loop has taken on what was started before. For that it may need descriptors
    // for a moment.
    void settle() {
        open(kSocketPair);
        send(streams.back(), 1);
        endAll();
    }

    // Something happens.
    void step() {
        if (below(100) == 0) wanted = below(kMostStreams);
        switch (below(8)) {
            case 0:
                if (streams.size() < wanted) open(below(opened.size()));
                break;
            case 1:
                if (streams.size() > wanted) end(streams);
                break;
            case 2:
                if (timers.size() < kMostTimers)
                    timers.emplace_back(loop, below(50), below(2) == 0, tokens);
                break;
            case 3:
                if (!timers.empty()) end(timers);
                break;
            default:
                if (!streams.empty())
                    send(streams[below(streams.size())], 1 + below(below(kLargestPiece) + 1));
        }
    }

    // All that is left ends, and what must have come has.
    void endAll() {
        while (!streams.empty())
            finish(taken(streams));
        while (!timers.empty())
            finish(taken(timers));
        EXPECT_TRUE(tokens.waitUntilHeld(0)) << "a source that is not stopped";
    }

    void stopServers() {
        for (const auto& server : servers)
            loop.stopObject(server);
    }

    [[nodiscard]] bool isSound() const { return failures == 0; }

    void print() const {
        std::printf(
            "connections over Unix sockets %zu, TCP %zu, socket pairs %zu, pipes %zu; "
            "clients refused %zu\nbytes echoed %llu; streams ended in order %zu, at any moment "
            "%zu; timers that had fired %zu, that were stopped before %zu\n",
            opened[0], opened[1], opened[2], opened[3], refused,
            static_cast<unsigned long long>(echoed), streamEnds.finished, streamEnds.abandoned,
            timerEnds.finished, timerEnds.abandoned);
    }

    [[nodiscard]] const std::array<size_t, 4>& openedByKind() const { return opened; }
    [[nodiscard]] size_t timesRefused() const { return refused; }

private:
    // Kinds of streams: the numbers of the endpoints, and these.
    static constexpr size_t kSocketPair = 2;
    static constexpr size_t kPipe = 3;

    struct Ends {
        size_t finished = 0;  // after all that was to come
        size_t abandoned = 0;
    };

    uint64_t below(uint64_t limit) {
        return std::uniform_int_distribution<uint64_t>(0, limit == 0 ? 0 : limit - 1)(random);
    }

    template <typename Thing>
    Thing taken(std::vector<Thing>& things) {
        std::swap(things[below(things.size())], things.back());
        Thing thing = std::move(things.back());
        things.pop_back();
        return thing;
    }

    // A Unix server's backlog may be full for the moment: then there is one stream less.
    void open(size_t kind) {
        const auto source = connect(kind);
        if (!source) {
            ++refused;
            return;
        }
        ++opened[kind];
        streams.emplace_back(loop, source, random(), tokens);
    }

    std::shared_ptr<HXKQueueEventProtocol> connect(size_t kind) {
        if (kind < endpoints.size()) return endpoints[kind]->connectOn(loop);
        if (kind == kPipe) return loop.createBipipeClient(makePipe().data(), true);
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        loop.startObject(loop.createStreamSocket(ends[1], true), echoing(loop, tokens));
        return loop.createStreamSocket(ends[0], true);
    }

    static void send(EchoedStream& stream, uint64_t size) {
        if (stream.underWay() < kMostUnderWay) stream.send(size);
    }

    // One that is done, or any at all.
    template <typename Thing>
    void end(std::vector<Thing>& things) {
        const Thing thing = taken(things);
        if (isDone(thing))
            finish(thing);
        else if (below(3) == 0)
            abandon(thing);
        else
            things.push_back(thing);
    }

    static bool isDone(const EchoedStream& stream) { return stream.underWay() == 0; }
    static bool isDone(const CountedTimer& timer) { return timer.hasFired(); }

    template <typename Thing>
    void abandon(const Thing& thing) {
        thing.stop();
        ++endsOf(thing).abandoned;
    }

    Ends& endsOf(const EchoedStream& /*stream*/) { return streamEnds; }
    Ends& endsOf(const CountedTimer& /*timer*/) { return timerEnds; }

    void finish(const EchoedStream& stream) {
        check(stream.waitForAll());
        echoed += stream.bytesSent();
        stream.stop();
        ++streamEnds.finished;
    }

    void finish(const CountedTimer& timer) {
        check(timer.waitUntilFired());
        timer.stop();
        ++timerEnds.finished;
    }

    void check(const std::string& failure) {
        if (failure.empty()) return;
        ++failures;
        ADD_FAILURE() << failure;
    }

    HXKQueue& loop;
    std::mt19937_64 random;
    BlockTokens tokens;
    UnixEndpoint overUnix;
    TcpEndpoint overTcp;
    std::array<const Endpoint*, 2> endpoints{&overUnix, &overTcp};
    std::vector<std::shared_ptr<HXKQueueEventProtocol>> servers;
    std::vector<EchoedStream> streams;
    std::vector<CountedTimer> timers;
    size_t wanted = kMostStreams / 2;

    std::array<size_t, 4> opened{};
    size_t refused = 0;
    Ends streamEnds;
    Ends timerEnds;
    size_t failures = 0;
    uint64_t echoed = 0;
};

// What a process has of what could leak.
struct Holdings {
    size_t descriptors = openDescriptors();
    size_t threads = threadCount();
    size_t bytes = bytesInUseWithoutClosedQueues();
    size_t resident = residentBytes();

    void print(const char* when) const {
        std::printf("%s: descriptors %zu, threads %zu, bytes in use %zu, resident %zu\n", when,
                    descriptors, threads, bytes, resident);
    }
};

TEST(Soak, OfConnectionsPipesAndTimersLosesNothingAndLeavesNothing) {
    const std::chrono::seconds duration(howMany("HXUSBVCTL_SOAK_SECONDS", 2));
    const uint64_t seed = howMany("HXUSBVCTL_SOAK_SEED", 1);
    std::printf("seed %llu, seconds %lld\n", static_cast<unsigned long long>(seed),
                static_cast<long long>(duration.count()));
    makeFirstThread();
    const Holdings before;
    before.print("before");
    {
        const LogRecorder log(LogLevel::Error);
        const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
        loop->start();
        Crowd crowd(*loop, seed);
        crowd.settle();
        const size_t descriptors = openDescriptors();
        const Clock::time_point end = Clock::now() + duration;
        uint64_t steps = 0;
        const auto goesOn = [&] {
            return crowd.isSound() && (steps < kLeastSteps || Clock::now() < end);
        };
        while (goesOn()) {
            do
                crowd.step();
            while (++steps % kStepsOfARound != 0 && goesOn());
            crowd.endAll();
            EXPECT_EQ(openDescriptors(), descriptors);
        }
        crowd.stopServers();
        loop->stop();
        crowd.print();
        for (const size_t count : crowd.openedByKind())
            EXPECT_GT(count, 0U);
        const std::vector<std::string> refusals(crowd.timesRefused(),
                                                "error cannot initialize unix socket object");
        EXPECT_EQ(log.errors(), refusals);
    }
    EXPECT_TRUE(waitForThreads(before.threads)) << "a thread that does not end";
    const Holdings after;
    after.print("after");
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_LE(after.bytes, before.bytes + kToleranceInBytes);
    EXPECT_LE(after.resident, before.resident + kResidentToleranceInBytes);
}

}  // namespace
