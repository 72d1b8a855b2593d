#include "platform/thread.h"

#include <csignal>

#include <atomic>
#include <new>
#include <semaphore>
#include <system_error>
#include <thread>
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

}  // namespace

std::unique_ptr<ThreadObject> ThreadObject::create(std::function<void()> routine) noexcept {
    try {
        auto state = std::make_shared<State>(std::move(routine));
        std::unique_ptr<ThreadObject> object(new ThreadObject(state));
        const AsynchronousSignalsBlocked whileTheThreadIsMade;
        std::thread([state] { state->run(); }).detach();
        return object;
    } catch (const std::bad_alloc&) {
        return nullptr;
    } catch (const std::system_error&) {
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
