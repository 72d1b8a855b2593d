#include "platform/large_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kUnit = kLargeMemoryUnit;
constexpr size_t kMoreThanThereIs = size_t{1} << 60;

// Large memory in which each eight bytes are numbered.
class LargeMemory : public testing::Test {
protected:
    LargeMemory() {
        for (size_t i = 0; i < kUnit / sizeof(uint64_t); ++i)
            numbers()[i] = i * 3;
    }
    ~LargeMemory() override { giveBackLargeMemory(memory, size); }

    uint64_t* numbers() { return static_cast<uint64_t*>(memory); }

    bool isAsItWas() {
        for (size_t i = 0; i < kUnit / sizeof(uint64_t); ++i)
            if (numbers()[i] != i * 3) return false;
        return true;
    }

    size_t size = kUnit;
    void* memory = takeLargeMemory(kUnit);
};

TEST_F(LargeMemory, IsAlignedForEveryType) {
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % alignof(std::max_align_t), 0U);
}

TEST_F(LargeMemory, KeepsWhatItHoldsWhenItGrows) {
    for (size_t units = 2; units <= 64; units *= 2) {
        void* larger = growLargeMemory(memory, size, units * kUnit);
        ASSERT_NE(larger, nullptr);
        memory = larger;
        size = units * kUnit;
        std::memset(static_cast<char*>(memory) + size - kUnit, 1, kUnit);
        ASSERT_TRUE(isAsItWas());
    }
}

TEST_F(LargeMemory, ThatCannotGrowIsAsItWas) {
    EXPECT_EQ(growLargeMemory(memory, size, kMoreThanThereIs), nullptr);
    EXPECT_TRUE(isAsItWas());
}

TEST_F(LargeMemory, PreparedIsAsItWas) {
    prepareLargeMemory(memory);
    prepareLargeMemory(memory);
    EXPECT_TRUE(isAsItWas());
}

TEST(LargeMemoryOfTheSystem, HasAnEnd) {
    EXPECT_EQ(takeLargeMemory(kMoreThanThereIs), nullptr);
}

}  // namespace
