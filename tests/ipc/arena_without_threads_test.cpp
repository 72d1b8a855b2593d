#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "ipc/arena.h"

namespace {

std::atomic<int> refusedThreads{0};

}  // namespace

// The C++ library calls this one.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int pthread_create(pthread_t* /*thread*/, const pthread_attr_t* /*attributes*/,
                              void* (* /*routine*/)(void*), void* /*argument*/) noexcept {
    ++refusedThreads;
    return EAGAIN;
}

namespace {

TEST(ArenaWithoutThreads, ManyMegabytesAreAllUsable) {
    constexpr size_t kSize = 100'000;
    Arena arena;
    std::vector<char*> pieces;
    for (size_t i = 0; i < 500; ++i) {
        pieces.push_back(static_cast<char*>(arena.allocate(kSize, 8)));
        std::memset(pieces.back(), static_cast<char>(i), kSize);
    }
    for (size_t i = 0; i < pieces.size(); ++i) {
        ASSERT_EQ(pieces[i][0], static_cast<char>(i));
        ASSERT_EQ(std::memcmp(pieces[i], pieces[i] + 1, kSize - 1), 0);
    }
    if (std::thread::hardware_concurrency() > 1) {
        EXPECT_GT(refusedThreads, 0);
    }
}

}  // namespace
