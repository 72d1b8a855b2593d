#include "kqueue/byte_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <random>
#include <stdexcept>
#include <string>

namespace {

using hxkqueue::ByteQueue;

std::string contentOf(const ByteQueue& queue) {
    return {queue.data(), queue.size()};
}

constexpr uint64_t kMoreThanThereIs = uint64_t{1} << 60;

// So many bytes, in which no place looks like the one before.
std::string numbered(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 2'654'435'761 >> 24);
    return bytes;
}

TEST(ByteQueue, HoldsWhatWasAppendedLessWhatWasTakenFromEitherEnd) {
    ByteQueue queue;
    EXPECT_TRUE(queue.empty());
    queue.append("abcdef", 6);
    queue.removeFront(2);
    EXPECT_EQ(contentOf(queue), "cdef");
    queue.removeBack(1);
    EXPECT_EQ(contentOf(queue), "cde");
    queue.append("gh", 2);
    EXPECT_EQ(contentOf(queue), "cdegh");
    EXPECT_FALSE(queue.empty());
}

TEST(ByteQueue, RemovingMoreThanThereIsRemovesAll) {
    ByteQueue queue;
    queue.append("abc", 3);
    queue.removeFront(1);
    queue.removeFront(UINT64_MAX);
    EXPECT_TRUE(queue.empty());
    queue.append("x", 1);
    EXPECT_EQ(contentOf(queue), "x");
}

TEST(ByteQueue, AppendedSpaceIsFilledByTheCaller) {
    ByteQueue queue;
    queue.append("abcdef", 6);
    queue.removeFront(4);
    queue.removeBack(1);
    char* space = queue.appendSpace(3);
    std::copy_n("xyz", 3, space);
    EXPECT_EQ(contentOf(queue), "exyz");
    queue.appendSpace(0);
    EXPECT_EQ(contentOf(queue), "exyz");
}

TEST(ByteQueue, FailsToGrowBeyondTheMemoryWithoutAChange) {
    ByteQueue queue;
    queue.append("abc", 3);
    // Volatile, so that the compiler does not see that no array is so long.
    for (const volatile uint64_t count : {UINT64_MAX, uint64_t{1} << 63})
        EXPECT_THROW(queue.append("x", count), std::length_error);
    EXPECT_THROW(queue.appendSpace(kMoreThanThereIs), std::bad_alloc);
    EXPECT_EQ(contentOf(queue), "abc");
}

TEST(ByteQueue, FailsToGrowFromMegabytesWithoutAChange) {
    ByteQueue queue;
    const std::string megabytes = numbered(5'000'000);
    queue.append(megabytes.data(), megabytes.size());
    queue.removeFront(3);
    EXPECT_THROW(queue.appendSpace(kMoreThanThereIs), std::bad_alloc);
    EXPECT_EQ(queue.size(), megabytes.size() - 3);
    EXPECT_TRUE(contentOf(queue) == megabytes.substr(3));
}

// As a list reply comes: many reads, and nothing consumed until the last.
TEST(ByteQueue, HoldsMegabytesThatComeInPieces) {
    ByteQueue queue;
    const std::string megabytes = numbered(9'000'000);
    for (size_t from = 0, size = 1; from < megabytes.size();
         from += size, size = size * 2 % 262'147)
        queue.append(megabytes.data() + from, std::min(size, megabytes.size() - from));
    EXPECT_TRUE(contentOf(queue) == megabytes);
    queue.removeFront(8'999'999);
    EXPECT_EQ(contentOf(queue), megabytes.substr(8'999'999));
    queue.append("x", 1);
    EXPECT_EQ(contentOf(queue), megabytes.substr(8'999'999) + "x");
}

uintptr_t placeOf(const ByteQueue& queue) {
    return reinterpret_cast<uintptr_t>(queue.data());
}

TEST(ByteQueue, WhatIsLeftStaysInItsPlaceUntilHalfIsGone) {
    ByteQueue queue;
    queue.append(std::string(1000, 'x').data(), 1000);
    const uintptr_t place = placeOf(queue);
    for (size_t removed = 1; removed < 500; ++removed) {
        queue.removeFront(1);
        ASSERT_EQ(placeOf(queue), place + removed);
    }
    queue.removeFront(1);
    EXPECT_EQ(placeOf(queue), place);
}

// A queue that never runs empty works in the same memory however much goes through it.
TEST(ByteQueue, NeedsMemoryForWhatItHoldsOnlyWhateverHasGoneThrough) {
    ByteQueue queue;
    const std::string piece(100, 'x');
    queue.append(piece.data(), piece.size());
    queue.append(piece.data(), piece.size());
    const auto pass = [&] {
        queue.append(piece.data(), piece.size());
        queue.removeFront(piece.size());
    };
    for (int warmingUp = 0; warmingUp < 10; ++warmingUp)
        pass();
    const uintptr_t place = placeOf(queue);
    for (int step = 0; step < 1000; ++step) {
        pass();
        ASSERT_LT(placeOf(queue) - place + 1000, 2000U);
    }
    EXPECT_EQ(queue.size(), 200U);
}

TEST(ByteQueue, AgreesWithAStringWhateverIsDoneToIt) {
    ByteQueue queue;
    std::string model;
    std::mt19937 random(1);
    for (int step = 0; step < 20'000; ++step) {
        const std::string added(random() % 40, static_cast<char>('a' + step % 26));
        queue.append(added.data(), added.size());
        model += added;
        const size_t front = random() % 45;
        queue.removeFront(front);
        model.erase(0, front);
        ASSERT_EQ(contentOf(queue), model);
    }
}

}  // namespace
