#include "tests/platform/epoll_calls.h"
#include "tests/platform/kernel_queue.h"

namespace {

using Trouble = KernelQueueTest;

TEST_F(Trouble, LineThatAnotherReaderTakesFirstIsNoEndOfTheTerminal) {
    const Pair pair = terminalPair();
    if (pair.ours == -1) GTEST_SKIP() << kNoTerminals;
    add(pair.ours, EVFILT_READ);
    send(pair.peer, "line\n");
    readAwayBeforeCount = pair.ours;
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_EQ(readAwayBeforeCount, -1);
    send(pair.peer, "next\n");
    EXPECT_EQ(waitForOne().data, 5);
}

}  // namespace
