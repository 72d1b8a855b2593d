// A thread that is created bound to a routine and started later.
//
// The system's thread exists from creation on and waits for start, so that a lack of threads or
// memory shows while the caller can still report it. Every signal but those of the thread's own
// faults is blocked on it: handlers run on the program's other threads. Its stack has at least 1
// MiB, however little the program's main thread is allowed.
//
// Threads    all operations may be called from any thread; start at most once.
// Ownership  the object may be destroyed at any time, also by its own routine: a running routine
//            goes on to its end, one that was never started never runs.
#pragma once

#include <functional>
#include <memory>

class ThreadObject {
public:
    // Null when the thread cannot be created.
    [[nodiscard]] static std::unique_ptr<ThreadObject> create(
        std::function<void()> routine) noexcept;

    ThreadObject(const ThreadObject&) = delete;
    ThreadObject& operator=(const ThreadObject&) = delete;
    ~ThreadObject();

    void start() noexcept;

    // Only sets a mark for the routine to look at.
    void cancel() noexcept;
    [[nodiscard]] bool isCancelled() const noexcept;

    // True once the routine has returned and what it captured is gone.
    [[nodiscard]] bool isFinished() const noexcept;

private:
    struct State;
    explicit ThreadObject(std::shared_ptr<State> shared) noexcept;

    std::shared_ptr<State> state;  // shared with the thread
};
