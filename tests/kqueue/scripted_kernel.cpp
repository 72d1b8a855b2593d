#include "tests/kqueue/scripted_kernel.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "kqueue/HXKQueue.h"

ScriptedKernel& ScriptedKernel::instance() {
    static ScriptedKernel& shared = *new ScriptedKernel;
    return shared;
}

void ScriptedKernel::reset() {
    const std::lock_guard guard(lock);
    submitted.clear();
    pending.clear();
    beforeRemoval = nullptr;
    beforeAddition = nullptr;
    duringCall = nullptr;
    failing = false;
    failures = 0;
}

void ScriptedKernel::deliver(const std::vector<struct kevent>& records) {
    const std::lock_guard guard(lock);
    // The next call may belong to an iteration that has begun already.
    for (const struct kevent& record : records)
        pending.push_back({.record = record, .dueCall = calls + 2});
    changed.notify_all();
}

void ScriptedKernel::beforeNextRemoval(std::function<void()> action) {
    const std::lock_guard guard(lock);
    beforeRemoval = std::move(action);
}

void ScriptedKernel::beforeNextAddition(std::function<void()> action) {
    const std::lock_guard guard(lock);
    beforeAddition = std::move(action);
}

void ScriptedKernel::changeIsComing(const struct kevent& change) {
    std::function<void()> action;
    {
        const std::lock_guard guard(lock);
        action.swap((change.flags & EV_DELETE) != 0 ? beforeRemoval : beforeAddition);
    }
    if (action) action();
}

void ScriptedKernel::duringNextCall(std::function<void()> action) {
    const std::lock_guard guard(lock);
    duringCall = std::move(action);
}

void ScriptedKernel::failNextCall() {
    const std::lock_guard guard(lock);
    failing = true;
}

// What is pending is handed out by the second call from now at the latest, and has been handled
// when the third begins, which is given the changes that came of it.
void ScriptedKernel::settle() {
    std::unique_lock guard(lock);
    const size_t enough = calls + 4;
    changed.wait(guard, [&] { return calls >= enough; });
}

std::vector<ScriptedKernel::Change> ScriptedKernel::changes() const {
    const std::lock_guard guard(lock);
    std::vector<Change> all;
    for (const struct kevent& change : submitted)
        all.push_back({change.ident, change.filter, change.flags});
    return all;
}

struct kevent ScriptedKernel::lastChange() const {
    const std::lock_guard guard(lock);
    return submitted.back();
}

size_t ScriptedKernel::failedCalls() const {
    const std::lock_guard guard(lock);
    return failures;
}

int ScriptedKernel::lastRoom() const {
    const std::lock_guard guard(lock);
    return givenRoom;
}

struct timespec ScriptedKernel::lastTimeout() const {
    const std::lock_guard guard(lock);
    return givenTimeout;
}

int ScriptedKernel::call(const struct kevent* changes, int changeCount, struct kevent* events,
                         int room, const struct timespec* timeout) {
    std::unique_lock guard(lock);
    ++calls;
    givenRoom = room;
    givenTimeout = *timeout;
    changed.notify_all();
    if (duringCall) {
        std::function<void()> action;
        action.swap(duringCall);
        guard.unlock();
        action();
        guard.lock();
    }
    if (failing) {
        failing = false;
        ++failures;
        errno = EINTR;
        return -1;
    }
    submitted.insert(submitted.end(), changes, changes + changeCount);
    if (pending.empty())
        changed.wait_for(guard, std::chrono::nanoseconds(timeout->tv_nsec),
                         [&] { return !pending.empty(); });
    const auto end = std::find_if(pending.begin(), pending.end(),
                                  [this](const Pending& each) { return each.dueCall > calls; });
    const size_t due = static_cast<size_t>(end - pending.begin());
    const size_t count = std::min(due, static_cast<size_t>(room));
    for (size_t i = 0; i < count; ++i)
        events[i] = pending[i].record;
    pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(count));
    return static_cast<int>(count);
}

// The names are the linker's: the second is that of HXKQueue::submitChange(const struct kevent*).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" {

int __wrap_kevent(int kq, const struct kevent* changes, int changeCount, struct kevent* events,
                  int room, const struct timespec* timeout);
void __real__ZN8HXKQueue12submitChangeEPK6kevent(HXKQueue* loop, const struct kevent* change);
void __wrap__ZN8HXKQueue12submitChangeEPK6kevent(HXKQueue* loop, const struct kevent* change);

int __wrap_kevent(int /*kq*/, const struct kevent* changes, int changeCount, struct kevent* events,
                  int room, const struct timespec* timeout) {
    return ScriptedKernel::instance().call(changes, changeCount, events, room, timeout);
}

void __wrap__ZN8HXKQueue12submitChangeEPK6kevent(HXKQueue* loop, const struct kevent* change) {
    ScriptedKernel::instance().changeIsComing(*change);
    __real__ZN8HXKQueue12submitChangeEPK6kevent(loop, change);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
