#include "ipc/arena.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "tests/support/failing_allocations.h"

namespace {

struct Piece {
    char* place;
    size_t size;
    char mark;
};

bool holdsItsMark(const Piece& piece) {
    for (size_t i = 0; i < piece.size; ++i)
        if (piece.place[i] != piece.mark) return false;
    return true;
}

TEST(Arena, PiecesOfAnySizeAndAlignmentAreApart) {
    Arena arena;
    std::vector<Piece> pieces;
    for (size_t i = 0; i < 4000; ++i) {
        const size_t size = i * i % 5003;
        const size_t alignment = size_t{1} << i % 7;
        auto* place = static_cast<char*>(arena.allocate(size, alignment));
        ASSERT_EQ(reinterpret_cast<uintptr_t>(place) % alignment, 0U);
        pieces.push_back({place, size, static_cast<char>(i)});
        std::memset(place, static_cast<char>(i), size);
    }
    for (const Piece& piece : pieces)
        ASSERT_TRUE(holdsItsMark(piece));
}

// Enough for blocks that another thread prepares.
TEST(Arena, ManyMegabytesAreAllUsable) {
    Arena arena;
    constexpr size_t kSize = 100'000;
    std::vector<Piece> pieces;
    for (size_t i = 0; i < 500; ++i) {
        auto* place = static_cast<char*>(arena.allocate(kSize, 8));
        pieces.push_back({place, kSize, static_cast<char>(i)});
        std::memset(place, static_cast<char>(i), kSize);
    }
    for (const Piece& piece : pieces)
        ASSERT_TRUE(holdsItsMark(piece));
}

TEST(Arena, OnePieceMayBeLargerThanAllBlocksSoFar) {
    for (const size_t size : {size_t{5'000}, size_t{3'000'000}, size_t{70'000'000}}) {
        Arena arena;
        auto* place = static_cast<char*>(arena.allocate(size, 16));
        place[0] = 'a';
        place[size - 1] = 'z';
        auto* another = static_cast<char*>(arena.allocate(1, 1));
        *another = 'x';
        EXPECT_EQ(place[0], 'a');
        EXPECT_EQ(place[size - 1], 'z');
    }
}

TEST(Arena, ThrowsWithoutMemoryAndGoesOnAfterwards) {
    Arena arena;
    for (const size_t size : {size_t{1} << 60, SIZE_MAX / 2, SIZE_MAX})
        EXPECT_THROW(static_cast<void>(arena.allocate(size, 1)), std::bad_alloc);
    {
        const FailingAllocations failing(1);
        EXPECT_THROW(static_cast<void>(arena.allocate(1, 1)), std::bad_alloc);
    }
    EXPECT_NE(arena.allocate(1, 1), nullptr);
}

TEST(Arena, ClearedIsAsNewAndKeepsTheMemoryOfASmallReply) {
    Arena arena;
    char* first = static_cast<char*>(arena.allocate(1'000, 1));
    for (int round = 0; round < 3; ++round) {
        arena.clear();
        const FailingAllocations failing(1);
        EXPECT_EQ(arena.allocate(1'000, 1), first);
    }
    for (const size_t size : {size_t{50'000}, size_t{20'000'000}}) {
        auto* place = static_cast<char*>(arena.allocate(size, 1));
        std::memset(place, 'x', size);
        arena.clear();
        EXPECT_EQ(arena.allocate(1'000, 1), first);
    }
}

}  // namespace
