#include "platform/linux/timer_set.h"

#include <cerrno>
#include <ctime>
#include <limits>

namespace epollqueue {

namespace {

constexpr int64_t kPerSecond = 1'000'000'000;
constexpr int64_t kPerMillisecond = 1'000'000;

}  // namespace

TimerSet::Nanoseconds TimerSet::now() noexcept {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kPerSecond + time.tv_nsec;
}

int TimerSet::add(const struct kevent& change, Nanoseconds now) {
    constexpr auto kEnd = std::numeric_limits<Nanoseconds>::max();
    const int64_t milliseconds = change.data > 0 ? change.data : 0;
    if (milliseconds > (kEnd - now) / kPerMillisecond) return ERANGE;
    Timer next;
    next.period = milliseconds * kPerMillisecond;
    next.deadline = now + next.period;
    next.armed = true;
    next.oneShot = (change.flags & EV_ONESHOT) != 0;
    next.udata = change.udata;

    const auto [timer, isNew] = timers.try_emplace(change.ident);
    try {
        deadlines.emplace(next.deadline, change.ident);
    } catch (...) {
        if (isNew) timers.erase(timer);
        throw;
    }
    const Timer& before = timer->second;
    if (before.armed && before.deadline != next.deadline)
        deadlines.erase({before.deadline, change.ident});
    timer->second = next;
    return 0;
}

bool TimerSet::remove(uint64_t ident) noexcept {
    const auto timer = timers.find(ident);
    if (timer == timers.end()) return false;
    if (timer->second.armed) deadlines.erase({timer->second.deadline, ident});
    timers.erase(timer);
    return true;
}

std::optional<TimerSet::Nanoseconds> TimerSet::nextDeadline() const noexcept {
    if (deadlines.empty()) return std::nullopt;
    return deadlines.begin()->first;
}

// The next deadline is counted from the last one, not from this delivery, so the timer does not
// drift. Its node moves within the set: nothing is allocated.
bool TimerSet::takeDue(Nanoseconds now, struct kevent& record) noexcept {
    if (deadlines.empty() || deadlines.begin()->first > now) return false;
    auto node = deadlines.extract(deadlines.begin());
    const uint64_t ident = node.value().second;
    const auto found = timers.find(ident);
    Timer& timer = found->second;
    const bool repeats = timer.period > 0 && !timer.oneShot;
    const int64_t expirations = repeats ? 1 + (now - timer.deadline) / timer.period : 1;
    EV_SET(&record, ident, EVFILT_TIMER, timer.oneShot ? EV_ONESHOT : 0, 0, expirations,
           timer.udata);
    if (timer.oneShot) {
        timers.erase(found);
    } else if (repeats) {
        timer.deadline += expirations * timer.period;
        node.value().first = timer.deadline;
        deadlines.insert(std::move(node));
    } else {
        timer.armed = false;
    }
    return true;
}

}  // namespace epollqueue
