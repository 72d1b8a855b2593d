#include "platform/thread.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <new>
#include <semaphore>
#include <utility>

struct ThreadObject::State {
    explicit State(std::function<void()> toRun) noexcept : routine(std::move(toRun)) {}

    void run() {
        wake.acquire();
        if (wanted) routine();
        routine = nullptr;
        if (wanted) finished.store(true, std::memory_order_release);
    }

    std::function<void()> routine;  // the thread's own once it runs
    std::binary_semaphore wake{0};
    bool wanted = false;  // ordered by wake: written before its release, read after its acquire
    std::atomic<bool> started{false};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> finished{false};
};

namespace {

// A new thread inherits the signal mask of the one that makes it.
class AsynchronousSignalsBlocked {
public:
    AsynchronousSignalsBlocked() noexcept {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    }
    ~AsynchronousSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

    AsynchronousSignalsBlocked(const AsynchronousSignalsBlocked&) = delete;
    AsynchronousSignalsBlocked& operator=(const AsynchronousSignalsBlocked&) = delete;

private:
    sigset_t previous{};
};

// Of a detached thread. The system's own size may be as little as a limit on the main thread's
// stack allows; a report's buffer and a reply as deep as is read take up to 96 KiB.
class Attributes {
public:
    Attributes() noexcept : isMade(pthread_attr_init(&attributes) == 0) {
        size_t stack = 0;
        isUsable = isMade && pthread_attr_getstacksize(&attributes, &stack) == 0 &&
                   pthread_attr_setstacksize(&attributes, std::max(stack, kLeastStack)) == 0 &&
                   pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0;
    }
    ~Attributes() {
        if (isMade) pthread_attr_destroy(&attributes);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    // Null when there are none to be had.
    [[nodiscard]] const pthread_attr_t* get() const noexcept {
        return isUsable ? &attributes : nullptr;
    }

private:
    static constexpr size_t kLeastStack = size_t{1} << 20;

    pthread_attr_t attributes{};
    const bool isMade;
    bool isUsable = false;
};

// Runs start(given) on a thread of its own. False when there is none to be had.
bool startThread(void* (*start)(void*), void* given) noexcept {
    const Attributes attributes;
    const AsynchronousSignalsBlocked whileTheThreadIsMade;
    pthread_t thread;
    return attributes.get() != nullptr &&
           pthread_create(&thread, attributes.get(), start, given) == 0;
}

}  // namespace

std::unique_ptr<ThreadObject> ThreadObject::create(std::function<void()> routine) noexcept {
    using Shared = std::shared_ptr<State>;
    const auto run = [](void* given) noexcept -> void* {
        const std::unique_ptr<Shared> own(static_cast<Shared*>(given));
        (*own)->run();
        return nullptr;
    };
    try {
        const auto state = std::make_shared<State>(std::move(routine));
        std::unique_ptr<ThreadObject> object(new ThreadObject(state));
        auto given = std::make_unique<Shared>(state);
        if (!startThread(run, given.get())) return nullptr;
        static_cast<void>(given.release());  // the thread's
        return object;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

ThreadObject::ThreadObject(std::shared_ptr<State> shared) noexcept : state(std::move(shared)) {}

ThreadObject::~ThreadObject() {
    if (!state->started.exchange(true)) state->wake.release();
}

void ThreadObject::start() noexcept {
    if (state->started.exchange(true)) return;
    state->wanted = true;
    state->wake.release();
}

void ThreadObject::cancel() noexcept {
    state->cancelled.store(true, std::memory_order_release);
}

bool ThreadObject::isCancelled() const noexcept {
    return state->cancelled.load(std::memory_order_acquire);
}

bool ThreadObject::isFinished() const noexcept {
    return state->finished.load(std::memory_order_acquire);
}
