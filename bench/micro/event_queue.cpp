// The kernel event queue, as the loop uses it: every change with a look at what is ready.

#include <benchmark/benchmark.h>
#include <sys/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <span>
#include <utility>
#include <vector>

#include "bench/support/program.h"

namespace {

constexpr struct timespec kAtOnce = {};

// Connected sockets, of which the queue watches one end each.
class Sockets {
public:
    explicit Sockets(size_t count) : pairs(count) {
        for (auto& pair : pairs)
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) == -1) fail("socketpair");
    }
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;
    ~Sockets() {
        for (const auto& pair : pairs)
            for (const int end : pair)
                close(end);
    }

    void sendByteToEach() const {
        for (const auto& pair : pairs)
            if (write(pair[1], "x", 1) != 1) fail("write");
    }

    // The same change for each.
    [[nodiscard]] std::vector<struct kevent> changes(int16_t filter, uint16_t flags) const {
        std::vector<struct kevent> all(pairs.size());
        for (size_t i = 0; i < pairs.size(); ++i)
            EV_SET(&all[i], pairs[i][0], filter, flags, 0, 0, nullptr);
        return all;
    }

private:
    std::vector<std::array<int, 2>> pairs;
};

class Queue {
public:
    explicit Queue(size_t room) : queue(kqueue()), records(room) {
        if (queue == -1) fail("kqueue");
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    ~Queue() { close(queue); }

    // The number of records.
    int exchange(const std::vector<struct kevent>& changes) {
        return exchange(changes, records.size());
    }

    // The records of one call, which are not more than limit, and none after a failure.
    std::span<const struct kevent> take(size_t limit) {
        const int count = exchange({}, limit);
        return std::span(records).first(count > 0 ? static_cast<size_t>(count) : 0);
    }

private:
    int exchange(const std::vector<struct kevent>& changes, size_t limit) {
        return kevent(queue, changes.data(), static_cast<int>(changes.size()), records.data(),
                      static_cast<int>(limit), &kAtOnce);
    }

    const int queue;
    std::vector<struct kevent> records;
};

void setItems(benchmark::State& state, bool isRight) {
    if (!isRight) state.SkipWithError("not what was to be delivered");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void registerAndDelete(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Sockets sockets(count);
    const auto additions = sockets.changes(EVFILT_READ, EV_ADD | EV_ENABLE);
    const auto removals = sockets.changes(EVFILT_READ, EV_DELETE);
    Queue queue(count);
    bool isRight = true;
    while (state.KeepRunning())
        isRight = queue.exchange(additions) == 0 && queue.exchange(removals) == 0 && isRight;
    setItems(state, isRight);
}
BENCHMARK(registerAndDelete)->Name("event_queue/register_and_delete")->Arg(1)->Arg(100)->Arg(1000);

void armAndRemoveWrite(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Sockets sockets(count);
    const auto additions = sockets.changes(EVFILT_WRITE, EV_ADD | EV_ENABLE);
    const auto removals = sockets.changes(EVFILT_WRITE, EV_DELETE);
    Queue queue(count);
    bool isRight = true;
    while (state.KeepRunning())
        isRight = queue.exchange(additions) == static_cast<int>(count) &&
                  queue.exchange(removals) == 0 && isRight;
    setItems(state, isRight);
}
BENCHMARK(armAndRemoveWrite)
    ->Name("event_queue/arm_deliver_and_remove_write")
    ->Arg(1)
    ->Arg(100)
    ->Arg(1000);

// Takes a record of each descriptor, in as many calls as that needs.
class Rounds {
public:
    explicit Rounds(const std::vector<struct kevent>& registered) : count(registered.size()) {
        for (const struct kevent& one : registered)
            if (one.ident >= lastRound.size()) lastRound.resize(one.ident + 1);
    }

    // Whether each has come once, with its one byte.
    bool run(Queue& queue) {
        ++round;
        for (size_t missing = count; missing > 0;) {
            const auto records = queue.take(missing);
            if (records.empty()) return false;
            for (const struct kevent& record : records)
                if (!isNew(record)) return false;
            missing -= records.size();
        }
        return true;
    }

private:
    bool isNew(const struct kevent& record) {
        return record.filter == EVFILT_READ && record.data == 1 &&
               record.ident < lastRound.size() &&
               std::exchange(lastRound[record.ident], round) != round;
    }

    const size_t count;
    size_t round = 0;
    std::vector<size_t> lastRound;  // by descriptor
};

// Nobody reads the bytes, so the same records come again and again.
void deliver(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Sockets sockets(count);
    const auto additions = sockets.changes(EVFILT_READ, EV_ADD | EV_ENABLE);
    Queue queue(count);
    bool isRight = queue.exchange(additions) == 0;
    sockets.sendByteToEach();
    Rounds rounds(additions);
    while (state.KeepRunning())
        isRight = rounds.run(queue) && isRight;
    setItems(state, isRight);
}
BENCHMARK(deliver)->Name("event_queue/deliver")->Arg(1)->Arg(100)->Arg(1000);

// One that is ready among many that are not.
void deliverOneOfMany(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Sockets idle(count);
    const Sockets busy(1);
    busy.sendByteToEach();
    Queue queue(8);
    bool isRight = queue.exchange(idle.changes(EVFILT_READ, EV_ADD | EV_ENABLE)) == 0 &&
                   queue.exchange(busy.changes(EVFILT_READ, EV_ADD | EV_ENABLE)) == 1;
    while (state.KeepRunning())
        isRight = queue.exchange({}) == 1 && isRight;
    if (!isRight) state.SkipWithError("not what was to be delivered");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(deliverOneOfMany)->Name("event_queue/deliver_one_of_many")->Arg(1)->Arg(400);

void armAndRemoveTimers(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    std::vector<struct kevent> additions(count);
    std::vector<struct kevent> removals(count);
    for (size_t i = 0; i < count; ++i) {
        EV_SET(&additions[i], i, EVFILT_TIMER, EV_ADD | EV_ENABLE, 0, 1'000'000, nullptr);
        EV_SET(&removals[i], i, EVFILT_TIMER, EV_DELETE, 0, 0, nullptr);
    }
    Queue queue(count);
    bool isRight = true;
    while (state.KeepRunning())
        isRight = queue.exchange(additions) == 0 && queue.exchange(removals) == 0 && isRight;
    setItems(state, isRight);
}
BENCHMARK(armAndRemoveTimers)->Name("event_queue/arm_and_remove_timers")->Arg(1)->Arg(100'000);

}  // namespace
