// The library.

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <semaphore>
#include <thread>
#include <utility>

#include "bench/loop/measuring.h"
#include "bench/loop/subject.h"
#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

using Source = std::shared_ptr<HXKQueueEventProtocol>;
using Sources = std::vector<Source>;

std::shared_ptr<HXKQueue> startedLoop() {
    auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    require(loop != nullptr, "no loop");
    loop->start();
    return loop;
}

// A running loop whose I/O thread is held in a timer's block, so that what a measurement counts
// begins when it says so, and no idle iteration is among it.
class HeldLoop {
public:
    HeldLoop() : timer(loop->createTimer(0, true)) {
        arm();
        held.acquire();
    }

    // Lets the I/O thread go until it has done all that it was asked for, and all that is due.
    void pass() {
        arm();
        released.release();
        held.acquire();
    }

    HXKQueue* operator->() const { return loop.get(); }

private:
    void arm() {
        loop->startObject(timer, [this](auto&&...) {
            held.release();
            released.acquire();
            return true;
        });
    }

    std::shared_ptr<HXKQueue> loop = startedLoop();
    Source timer;
    std::binary_semaphore held{0};
    std::binary_semaphore released{0};
};

// The loop has let go of them.
void requireStopped(const Sources& sources) {
    require(std::all_of(sources.begin(), sources.end(),
                        [](const Source& source) { return source.use_count() == 1; }),
            "a source is not stopped");
}

double costOfStopping(HeldLoop& loop, const Sources& sources) {
    const double cost = processorSecondsOf([&] {
        for (const Source& source : sources)
            loop->stopObject(source);
        loop.pass();
    });
    requireStopped(sources);
    return cost;
}

PhaseCosts timers(size_t count, unsigned periodMs) {
    HeldLoop loop;
    PhaseCosts costs;
    Sources timers(count);
    size_t fired = 0;
    costs.create = processorSecondsOf([&] {
        for (Source& timer : timers)
            timer = loop->createTimer(periodMs, false);
        loop.pass();
    });
    costs.arm = processorSecondsOf([&] {
        for (const Source& timer : timers)
            loop->startObject(timer, [&fired](auto&&...) { return ++fired > 0; });
        loop.pass();
    });
    require(fired == 0, "a timer has fired before all were armed");
    sleepFor(periodMs / 1000.0);
    costs.deliver = processorSecondsOf([&] { loop.pass(); });
    require(fired == count, "not every timer has fired once");
    costs.stop = costOfStopping(loop, timers);
    return costs;
}

std::vector<int> endsOf(const Pairs& pairs) {
    std::vector<int> ends;
    ends.reserve(2 * pairs.size());
    for (const auto& pair : pairs)
        ends.insert(ends.end(), pair.begin(), pair.end());
    return ends;
}

PhaseCosts costsOfStreams(const Pairs& pairs, size_t count, bool closeOnStop) {
    HeldLoop loop;
    PhaseCosts costs;
    const std::vector<int> ends = endsOf(pairs);
    Sources streams(count);
    size_t received = 0;
    costs.create = processorSecondsOf([&] {
        for (size_t i = 0; i < count; ++i)
            streams[i] = loop->createStreamSocket(ends[i % ends.size()], closeOnStop);
        loop.pass();
    });
    costs.arm = processorSecondsOf([&] {
        for (const Source& stream : streams)
            loop->startObject(stream, [&received](const auto& /*source*/, auto* /*bytes*/,
                                                  uint64_t size, auto* /*drop*/, int32_t code) {
                if (code == HXKQueueEventData) received += size;
                return true;
            });
        loop.pass();
    });
    sendOneByteEachWay(pairs);
    costs.deliver = processorSecondsOf([&] {
        // What does not fit into one iteration is delivered in the next ones.
        while (received < ends.size())
            loop.pass();
    });
    require(received == ends.size(), "not every stream has received its byte");
    costs.stop = costOfStopping(loop, streams);
    return costs;
}

PhaseCosts sources(const Pairs& pairs) {
    return costsOfStreams(pairs, 2 * pairs.size(), true);
}

PhaseCosts sharingSources(const Pairs& pairs, size_t count) {
    return costsOfStreams(pairs, count, false);
}

// Calls a function at its end.
class Token {
public:
    explicit Token(std::function<void()> atEnd_) : atEnd(std::move(atEnd_)) {}
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    ~Token() { atEnd(); }

private:
    std::function<void()> atEnd;
};

// From a call until the loop's thread calls the function that it is given.
template <typename Call>
Latency latencyUntilCalled(size_t samples, Call call) {
    std::vector<double> seconds(samples);
    for (double& sample : seconds) {
        std::binary_semaphore acted{0};
        double end = 0;
        const auto act = [&] {
            end = wallSeconds();
            acted.release();
        };
        const double begin = call(act);
        acted.acquire();
        sample = end - begin;
    }
    return latencyOf(seconds);
}

Latency latencyOfWrite(HXKQueue& loop, size_t samples) {
    const Pairs pairs = makePairs(1);
    const auto stream = loop.createStreamSocket(pairs[0][0], false);
    loop.startObject(stream, [](auto&&...) { return true; });
    std::vector<double> seconds(samples);
    for (double& sample : seconds) {
        sleepAtRandom();
        const double begin = wallSeconds();
        loop.write(stream, "x", 1);
        readAll(pairs[0][1], 1);
        sample = wallSeconds() - begin;
    }
    return latencyOf(seconds);
}

HandOver handOver(size_t samples) {
    const auto loop = startedLoop();
    HandOver figures;
    figures.start = latencyUntilCalled(samples, [&](const std::function<void()>& act) {
        const auto timer = loop->createTimer(0, true);
        sleepAtRandom();
        const double begin = wallSeconds();
        loop->startObject(timer, [act](auto&&...) {
            act();
            return true;
        });
        return begin;
    });
    figures.stop = latencyUntilCalled(samples, [&](const std::function<void()>& act) {
        const auto timer = loop->createTimer(1'000'000, true);
        loop->startObject(timer,
                          [token = std::make_shared<Token>(act)](auto&&...) { return true; });
        sleepAtRandom();
        const double begin = wallSeconds();
        loop->stopObject(timer);
        return begin;
    });
    figures.write = latencyOfWrite(*loop, samples);
    return figures;
}

double writes(size_t messages) {
    const auto loop = startedLoop();
    const Pairs pairs = makePairs(1);
    const auto stream = loop->createStreamSocket(pairs[0][0], false);
    loop->startObject(stream, [](auto&&...) { return true; });
    const std::vector<char> message(kMessageSize, 'm');
    const double begin = wallSeconds();
    std::thread reader([&] { readAll(pairs[0][1], messages * kMessageSize); });
    for (size_t i = 0; i < messages; ++i)
        loop->write(stream, message.data(), message.size());
    reader.join();
    return wallSeconds() - begin;
}

Rest rest(const Pairs& connections, double seconds) {
    const auto loop = startedLoop();
    const Memory before = memoryInUse();
    for (const auto& connection : connections)
        loop->startObject(loop->createStreamSocket(connection[0], true),
                          [&loop](const auto& source, const char* bytes, uint64_t size,
                                  auto* /*drop*/, int32_t code) {
                              if (code == HXKQueueEventData) loop->write(source, bytes, size);
                              return true;
                          });
    exchangeOneMessageEach(connections);
    return restSince(before, connections.size(), seconds);
}

}  // namespace

const Subject kHxkqueue = {.name = "hxkqueue",
                           .timers = timers,
                           .sources = sources,
                           .sharingSources = sharingSources,
                           .handOver = handOver,
                           .writes = writes,
                           .rest = rest};
