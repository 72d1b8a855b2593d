// What becomes of timers that there is no memory for.

#include <gtest/gtest.h>

#include <memory>

#include "sim/server_life.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr uint32_t kForeverMs = 3'600'000;

std::shared_ptr<Inventory> oneConnectingServer() {
    return std::make_shared<Inventory>(std::vector<Server>{
        {.id = 1, .host = "box", .port = 1, .state = ServerState::Connecting, .devices = {}}});
}

class WithoutMemory : public testing::Test {
protected:
    void SetUp() override {
        loop = HXKQueue::initWithSubsystem("test");
        ASSERT_TRUE(loop);
        loop->start();
    }
    void TearDown() override { loop->stop(); }

    std::shared_ptr<HXKQueue> loop;
};

// The block and the timer take at least one allocation each.
TEST_F(WithoutMemory, StepThatThereIsNoTimerForIsCompletedAtOnce) {
    for (uint64_t nth = 1; nth <= 2; ++nth) {
        const auto inventory = oneConnectingServer();
        const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
        const FailingAllocations failing(nth);
        life->start(loop);
        EXPECT_TRUE(failing.happened());
        EXPECT_EQ(inventory->servers()[0].state, ServerState::Connected) << nth;
    }
    const auto inventory = oneConnectingServer();
    const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
    life->start(loop);
    EXPECT_EQ(inventory->servers()[0].state, ServerState::Connecting);
}

TEST(WithoutLoop, StepIsCompletedAtOnce) {
    const auto inventory = oneConnectingServer();
    const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
    life->start({});
    EXPECT_EQ(inventory->servers()[0].state, ServerState::Connected);
}

}  // namespace
