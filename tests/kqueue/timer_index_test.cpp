#include "kqueue/timer_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

namespace {

using hxkqueue::TimerIndex;

// A registry around the index, without a loop.
class Registry {
public:
    explicit Registry(int32_t identEnd = TimerIndex::kIdentEnd) : index(identEnd) {}

    std::shared_ptr<HXKQueueTimer> add() {
        const std::optional<int32_t> ident = index.lowestFreeIdent();
        auto timer = HXKQueueTimer::initWithIdent(*ident, 1, false, {}, nullptr);
        idents.push_back(*ident);
        objects.push_back(timer);
        index.enter({.ident = std::prev(idents.end()), .object = std::prev(objects.end())});
        return timer;
    }

    bool remove(const std::shared_ptr<HXKQueueTimer>& timer) {
        const auto place = index.leave(timer.get());
        if (!place) return false;
        objects.erase(place->object);
        idents.erase(place->ident);
        return true;
    }

    std::list<int32_t> idents;
    std::list<std::shared_ptr<HXKQueueTimer>> objects;
    TimerIndex index;
};

class TimerRegistry : public testing::Test, protected Registry {};

TEST_F(TimerRegistry, StartsAtZeroAndGoesUp) {
    EXPECT_EQ(index.lowestFreeIdent(), 0);
    add();
    EXPECT_EQ(index.lowestFreeIdent(), 1);
    add();
    EXPECT_EQ(index.lowestFreeIdent(), 2);
}

TEST_F(TimerRegistry, TheLowestOfSeveralFreedIdentsComesFirst) {
    std::vector<std::shared_ptr<HXKQueueTimer>> timers;
    for (int i = 0; i < 5; ++i)
        timers.push_back(add());
    remove(timers[3]);
    remove(timers[1]);
    EXPECT_EQ(index.lowestFreeIdent(), 1);
    add();
    EXPECT_EQ(index.lowestFreeIdent(), 3);
    add();
    EXPECT_EQ(index.lowestFreeIdent(), 5);
    EXPECT_EQ(idents, (std::list<int32_t>{0, 2, 4, 1, 3}));  // in the order of allocation
}

TEST_F(TimerRegistry, KnowsWhichIdentsAreTaken) {
    const auto first = add();
    add();
    remove(first);
    EXPECT_FALSE(index.isTaken(0));
    EXPECT_TRUE(index.isTaken(1));
    EXPECT_FALSE(index.isTaken(2));
    EXPECT_FALSE(index.isTaken(-1));
}

TEST_F(TimerRegistry, TimerLeavesOnceAndByIdentityNotByIdent) {
    const auto timer = add();
    const auto sameIdent = HXKQueueTimer::initWithIdent(0, 1, false, {}, nullptr);
    EXPECT_FALSE(remove(sameIdent));
    EXPECT_TRUE(remove(timer));
    EXPECT_FALSE(remove(timer));
    EXPECT_FALSE(index.leave(nullptr));
}

TEST(TimerRegistryOfThree, HasNoFourthIdentUntilOneIsFreed) {
    Registry registry(3);
    registry.add();
    const auto second = registry.add();
    EXPECT_EQ(registry.index.lowestFreeIdent(), 2);
    registry.add();
    EXPECT_EQ(registry.index.lowestFreeIdent(), std::nullopt);
    registry.remove(second);
    EXPECT_EQ(registry.index.lowestFreeIdent(), 1);
    registry.add();
    EXPECT_EQ(registry.index.lowestFreeIdent(), std::nullopt);
}

TEST(TimerRegistryOfALoop, HasIdentsUpToTheLargestSignedNumberButOne) {
    EXPECT_EQ(TimerIndex::kIdentEnd, 2'147'483'647);
}

// Against the plainest of registries, which walks.
TEST_F(TimerRegistry, AgreesWithAWalkAlongTheListsWhateverComesAndGoes) {
    std::mt19937 random(1);
    for (int step = 0; step < 20'000; ++step) {
        if (objects.empty() || random() % 100 < 55) {
            int32_t expected = 0;
            std::vector<int32_t> sorted(idents.begin(), idents.end());
            std::sort(sorted.begin(), sorted.end());
            while (static_cast<size_t>(expected) < sorted.size() &&
                   sorted[static_cast<size_t>(expected)] == expected)
                ++expected;
            ASSERT_EQ(index.lowestFreeIdent(), expected);
            add();
            if (objects.size() > 200) remove(objects.front());
        } else {
            ASSERT_TRUE(
                remove(*std::next(objects.begin(), static_cast<int>(random() % objects.size()))));
        }
        ASSERT_EQ(idents.size(), objects.size());
    }
}

// Microseconds of this thread's processor time.
int64_t processorTime() {
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000 + time.tv_nsec / 1000;
}

// Creates count timers, then takes each out, in random order, and puts a new one in. The time for
// one of them, the best of several rounds.
double bestTimeForOneOf(size_t count) {
    double best = std::numeric_limits<double>::max();
    for (unsigned round = 0; round < 3; ++round) {
        Registry registry;
        std::vector<std::shared_ptr<HXKQueueTimer>> timers(count);
        std::mt19937 random(round);
        const int64_t start = processorTime();
        for (auto& timer : timers)
            timer = registry.add();
        std::shuffle(timers.begin(), timers.end(), random);
        for (auto& timer : timers) {
            registry.remove(timer);
            timer = registry.add();
        }
        best = std::min(best,
                        static_cast<double>(processorTime() - start) / static_cast<double>(count));
    }
    return best;
}

// With walks, a timer among twenty times as many would cost twenty times as much, or more. The
// caches make it about twice.
TEST(TimerRegistryCost, OfATimerDoesNotGrowWithTheirNumber) {
    EXPECT_LT(bestTimeForOneOf(100'000), 10 * bestTimeForOneOf(5'000));
}

}  // namespace
