#include <algorithm>
#include <filesystem>
#include <iterator>

#include "tests/platform/kernel_queue.h"
#include "tests/platform/processor_time.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr size_t kTimers = 10'000;

class TimerCost : public KernelQueueTest {
protected:
    static std::ptrdiff_t openDescriptors() {
        const std::filesystem::directory_iterator list("/proc/self/fd");
        return std::distance(begin(list), end(list));
    }

    void addMany(uint64_t first, size_t count, int64_t period) {
        for (uint64_t ident = first; ident < first + count; ++ident)
            ASSERT_EQ(setTimer(ident, period), 0);
    }

    // The processor time that arming a timer anew and delivering it takes, many times over: the
    // best of some attempts, since others use the processor's caches too.
    int64_t costOfRearming() {
        int64_t best = INT64_MAX;
        for (int attempt = 0; attempt < 5; ++attempt) {
            const int64_t before = processorTime();
            for (int i = 0; i < 1'000; ++i) {
                EXPECT_EQ(setTimer(1, 0), 0);
                EXPECT_EQ(look(1).size(), 1U);
            }
            best = std::min(best, processorTime() - before);
        }
        return best;
    }
};

TEST_F(TimerCost, TimersTakeNoDescriptors) {
    const std::ptrdiff_t before = openDescriptors();
    addMany(0, kTimers, 1);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(wait(kTimers).empty());
    EXPECT_EQ(openDescriptors(), before);
    for (size_t ident = 0; ident < kTimers; ++ident)
        ASSERT_EQ(change(ident, EVFILT_TIMER, EV_DELETE), 0);
    EXPECT_EQ(openDescriptors(), before);
    queue.reset();
    EXPECT_EQ(openDescriptors(), before - 1);
}

TEST_F(TimerCost, DeliveryAllocatesNothingWhateverTheNumberOfTimers) {
    addMany(0, kTimers, 1);
    Records records(kTimers);
    const auto deliver = [&] {
        return kevent(queue, nullptr, 0, records.data(), static_cast<int>(kTimers), nullptr);
    };
    ASSERT_GT(deliver(), 0);
    int delivered = 0;
    const FailingAllocations first(1);
    for (int i = 0; i < 20; ++i)
        delivered += deliver();
    EXPECT_FALSE(first.happened());
    EXPECT_GE(delivered, 20);
}

// A look at every idle timer would make it thousands of times as much.
TEST_F(TimerCost, RearmingAndDeliveryBarelyCostMoreAmongManyIdleTimers) {
    const int64_t alone = costOfRearming();
    addMany(2, 10 * kTimers, 3'600'000);
    EXPECT_LT(costOfRearming(), 20 * alone);
}

}  // namespace
