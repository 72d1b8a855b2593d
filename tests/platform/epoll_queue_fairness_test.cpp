// macOS delivers in the order of readiness, and a timer that is due once has its turn once.

#include <map>

#include "tests/platform/kernel_queue.h"

namespace {

using Fairness = KernelQueueTest;

TEST_F(Fairness, TimersThatAreAllDueLeaveADescriptorItsTurn) {
    Pair pair = unixPair();
    send(pair.peer, "x");
    add(pair.ours, EVFILT_READ);
    for (uint64_t i = 0; i < 100; ++i)
        ASSERT_EQ(change(i, EVFILT_TIMER, EV_ADD, 0), 0);
    std::map<int, int> turns;
    for (int i = 0; i < 20; ++i)
        ++turns[wait(1).at(0).filter];
    EXPECT_GE(turns[EVFILT_READ], 5);
    EXPECT_GE(turns[EVFILT_TIMER], 5);
}

}  // namespace
