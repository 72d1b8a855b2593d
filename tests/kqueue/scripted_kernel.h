// The kernel's side of kevent(2), played by a test: the executable's calls of it come here instead
// of to the system (by the linker's --wrap).
//
// Changes are written down and go no further; the records that the test hands in are what a later
// call returns. Without any, a call waits out its timeout or until there are some. The loop's
// submitChange passes by here too.
#pragma once

#include <sys/event.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

class ScriptedKernel {
public:
    struct Change {
        uint64_t ident;
        int filter;
        int flags;
        bool operator==(const Change&) const = default;
    };

    static ScriptedKernel& instance();

    // Forgets everything.
    void reset();

    // Returned by the first call whose whole iteration comes after this, so by one that knows every
    // source that has been registered. The calls before it return at once.
    void deliver(const std::vector<struct kevent>& records);

    // Runs action, once, on the thread that submits the next removal, before the loop has it.
    void beforeNextRemoval(std::function<void()> action);
    // The same for the next change that is no removal.
    void beforeNextAddition(std::function<void()> action);
    void changeIsComing(const struct kevent& change);

    // Runs action, once, on the thread of the next call, while that is under way.
    void duringNextCall(std::function<void()> action);

    // The next call takes its changes and fails.
    void failNextCall();

    // Returns once the calls that were under way have come back and one more has begun and ended:
    // what was delivered has been handled, and what was asked for before has been submitted.
    void settle();

    [[nodiscard]] std::vector<Change> changes() const;
    [[nodiscard]] struct kevent lastChange() const;
    [[nodiscard]] size_t failedCalls() const;

    // What the last call that has begun was given.
    [[nodiscard]] int lastRoom() const;
    [[nodiscard]] struct timespec lastTimeout() const;

    // What the executable's kevent does.
    int call(const struct kevent* changes, int changeCount, struct kevent* events, int room,
             const struct timespec* timeout);

private:
    struct Pending {
        struct kevent record;
        size_t dueCall;
    };

    mutable std::mutex lock;
    std::condition_variable changed;
    std::vector<struct kevent> submitted;
    std::vector<Pending> pending;
    std::function<void()> beforeRemoval;
    std::function<void()> beforeAddition;
    std::function<void()> duringCall;
    int givenRoom = 0;
    struct timespec givenTimeout = {};
    bool failing = false;
    size_t calls = 0;
    size_t failures = 0;
};
