#include "platform/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <future>
#include <memory>

namespace {

void waitUntilFinished(const ThreadObject& thread) {
    while (!thread.isFinished())
        sched_yield();
}

TEST(Thread, RunsItsRoutineOnceStartedAndNotBefore) {
    std::promise<void> ran;
    const auto thread = ThreadObject::create([&ran] { ran.set_value(); });
    ASSERT_NE(thread, nullptr);
    auto future = ran.get_future();
    EXPECT_NE(future.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
    EXPECT_FALSE(thread->isFinished());
    thread->start();
    future.wait();
    waitUntilFinished(*thread);
}

TEST(Thread, CancelIsAMarkForTheRoutine) {
    std::unique_ptr<ThreadObject> thread;
    thread = ThreadObject::create([&thread] {
        while (!thread->isCancelled())
            sched_yield();
    });
    EXPECT_FALSE(thread->isCancelled());
    thread->start();
    thread->cancel();
    EXPECT_TRUE(thread->isCancelled());
    waitUntilFinished(*thread);
}

TEST(Thread, NeverStartedReleasesWhatItsRoutineHolds) {
    const auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = held;
    {
        const auto thread = ThreadObject::create([held = held] { FAIL() << "must not run"; });
        EXPECT_EQ(watch.use_count(), 2);
    }
    while (watch.use_count() > 1)
        sched_yield();
}

TEST(Thread, FinishedMeansThatTheRoutineHoldsNothing) {
    const auto held = std::make_shared<int>(1);
    const auto thread = ThreadObject::create([held = held] {});
    thread->start();
    waitUntilFinished(*thread);
    EXPECT_EQ(held.use_count(), 1);
}

TEST(Thread, GoesOnWhenItsObjectIsDestroyed) {
    std::promise<void> destroyed;
    std::promise<void> ran;
    auto thread = ThreadObject::create([&] {
        destroyed.get_future().wait();
        ran.set_value();
    });
    thread->start();
    thread.reset();
    destroyed.set_value();
    ran.get_future().wait();
}

TEST(Thread, IsNotDisturbedBySignals) {
    std::promise<bool> blocked;
    const auto thread = ThreadObject::create([&blocked] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        blocked.set_value(sigismember(&mask, SIGPIPE) == 1 && sigismember(&mask, SIGTERM) == 1 &&
                          sigismember(&mask, SIGSEGV) == 0);
    });
    thread->start();
    EXPECT_TRUE(blocked.get_future().get());
    waitUntilFinished(*thread);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGPIPE), 0);
}

}  // namespace
