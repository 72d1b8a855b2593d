#include "kqueue/event_block_slot.h"

#include <gtest/gtest.h>

namespace {

using hxkqueue::EventBlockSlot;

TEST(EventBlockSlot, WithoutABlockNothingIsCalled) {
    EventBlockSlot slot;
    EXPECT_FALSE(slot.call(nullptr, nullptr, 0, nullptr, 0));
    slot.store(nullptr);
    EXPECT_FALSE(slot.call(nullptr, nullptr, 0, nullptr, 0));
}

TEST(EventBlockSlot, PassesTheAnswerOn) {
    EventBlockSlot slot;
    bool answer = true;
    slot.store([&answer](auto&&...) { return answer; });
    EXPECT_TRUE(slot.call(nullptr, nullptr, 0, nullptr, 0));
    answer = false;
    EXPECT_FALSE(slot.call(nullptr, nullptr, 0, nullptr, 0));
}

TEST(EventBlockSlot, BlockThatReplacesItselfRunsToItsEnd) {
    EventBlockSlot slot;
    const auto held = std::make_shared<int>(7);
    int seen = 0;
    slot.store([&slot, &seen, held](auto&&...) {
        EXPECT_NE(slot.take(), nullptr);
        seen = *held;
        return true;
    });
    EXPECT_TRUE(slot.call(nullptr, nullptr, 0, nullptr, 0));
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_FALSE(slot.call(nullptr, nullptr, 0, nullptr, 0));
}

TEST(EventBlockSlot, BlockThatIsTakenGoesWithWhatItHolds) {
    EventBlockSlot slot;
    const auto held = std::make_shared<int>(7);
    slot.store([held](auto&&...) { return true; });
    EXPECT_EQ(held.use_count(), 2);
    EXPECT_NE(slot.take(), nullptr);
    EXPECT_EQ(held.use_count(), 1);
}

TEST(EventBlockSlot, BlockThatGoesMayUseTheSlot) {
    EventBlockSlot slot;
    bool answer = true;
    {
        const std::shared_ptr<void> asks(
            nullptr, [&](void*) { answer = slot.call(nullptr, nullptr, 0, nullptr, 0); });
        slot.store([asks](auto&&...) { return true; });
    }
    EXPECT_NE(slot.take(), nullptr);
    EXPECT_FALSE(answer);
}

}  // namespace
