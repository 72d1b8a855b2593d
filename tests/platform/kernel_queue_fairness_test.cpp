#include <array>
#include <map>
#include <set>

#include "tests/platform/kernel_queue.h"

namespace {

using Fairness = KernelQueueTest;

TEST_F(Fairness, ReadAndWriteOfOneDescriptorAreTwoRecords) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    const Records records = wait();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_NE(records[0].filter, records[1].filter);
}

TEST_F(Fairness, NoMoreRecordsThanThereIsRoomFor) {
    std::array<Pair, 10> pairs;
    for (Pair& pair : pairs) {
        pair = unixPair();
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    EXPECT_EQ(wait(3).size(), 3U);
    EXPECT_EQ(wait(10).size(), 10U);
    EXPECT_TRUE(wait(0).empty());
}

TEST_F(Fairness, ReadableAndWritableDescriptorLosesNeitherWithRoomForOne) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    add(pair.ours, EVFILT_WRITE);
    for (int i = 0; i < 10; ++i) {
        std::set<int> filters;
        filters.insert(wait(1).at(0).filter);
        filters.insert(wait(1).at(0).filter);
        EXPECT_EQ(filters.size(), 2U);
    }
}

TEST_F(Fairness, EveryReadyDescriptorHasItsTurnWithRoomForOne) {
    constexpr size_t kCount = 50;
    std::vector<Pair> pairs(kCount);
    for (size_t i = 0; i < kCount; ++i) {
        pairs[i] = unixPair();
        send(pairs[i].peer, "x");
        add(pairs[i].ours, EVFILT_READ);
        if (i % 2 == 0) add(pairs[i].ours, EVFILT_WRITE);
    }
    std::map<std::pair<uint64_t, int>, int> turns;
    for (int round = 0; round < 4; ++round)
        for (size_t i = 0; i < kCount + kCount / 2; ++i) {
            const struct kevent record = wait(1).at(0);
            ++turns[{record.ident, record.filter}];
        }
    EXPECT_EQ(turns.size(), kCount + kCount / 2);
    for (const auto& [source, count] : turns)
        EXPECT_GE(count, 2) << source.first << " " << source.second;
}

TEST_F(Fairness, TimerAndDescriptorShareARoomOfOne) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    ASSERT_EQ(change(7, EVFILT_TIMER, EV_ADD, 1), 0);
    std::map<int, int> turns;
    while (turns[EVFILT_TIMER] < 5)
        ++turns[wait(1).at(0).filter];
    EXPECT_GT(turns[EVFILT_READ], 0);
    for (int i = 0; i < 100 && turns[EVFILT_READ] < 10; ++i)
        ++turns[wait(1).at(0).filter];
    EXPECT_GE(turns[EVFILT_READ], 10);
}

TEST_F(Fairness, LeftOverRecordIsForgottenWithItsReadiness) {
    std::array<Pair, 2> pairs = {unixPair(), unixPair()};
    for (Pair& pair : pairs) {
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    const auto first = static_cast<int>(wait(1).at(0).ident);
    const Pair& other = first == pairs[0].ours ? pairs[1] : pairs[0];
    EXPECT_EQ(receive(other.ours, 1), "x");
    EXPECT_EQ(receive(first, 1), "x");
    EXPECT_TRUE(look().empty());
}

TEST_F(Fairness, LeftOverRoomIsForgottenOnceItIsFilled) {
    const std::array<Pair, 2> pairs = {unixPair(), unixPair()};
    for (const Pair& pair : pairs)
        add(pair.ours, EVFILT_WRITE);
    const auto first = static_cast<int>(wait(1).at(0).ident);
    const Pair& other = first == pairs[0].ours ? pairs[1] : pairs[0];
    fillUp(other.ours);
    for (const struct kevent& record : look())
        EXPECT_NE(record.ident, static_cast<uint64_t>(other.ours));
}

TEST_F(Fairness, LeftOverRecordThatWasForgottenComesWithTheNextReadiness) {
    std::array<Pair, 2> pairs = {unixPair(), unixPair()};
    for (Pair& pair : pairs) {
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    const auto first = static_cast<int>(wait(1).at(0).ident);
    const Pair& other = first == pairs[0].ours ? pairs[1] : pairs[0];
    EXPECT_EQ(receive(other.ours, 1), "x");
    EXPECT_EQ(receive(first, 1), "x");
    EXPECT_TRUE(look().empty());
    send(other.peer, "y");
    EXPECT_EQ(waitForOne().ident, static_cast<uint64_t>(other.ours));
}

TEST_F(Fairness, LeftOverRecordComesOnceInTheNextCall) {
    std::array<Pair, 10> pairs;
    for (Pair& pair : pairs) {
        pair = unixPair();
        send(pair.peer, "x");
        add(pair.ours, EVFILT_READ);
    }
    EXPECT_EQ(wait(3).size(), 3U);
    EXPECT_EQ(look().size(), 10U);
}

TEST_F(Fairness, EveryWritableDescriptorHasItsTurnWithRoomForOne) {
    std::vector<Pair> pairs(20);
    for (Pair& pair : pairs) {
        pair = unixPair();
        add(pair.ours, EVFILT_WRITE);
    }
    std::set<uint64_t> seen;
    for (size_t i = 0; i < 2 * pairs.size(); ++i)
        seen.insert(wait(1).at(0).ident);
    EXPECT_EQ(seen.size(), pairs.size());
}

}  // namespace
