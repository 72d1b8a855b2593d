// Memory for many megabytes, straight from the system: its pages cost nothing until they are used,
// and move rather than being copied when the memory grows, where the system can do that.
//
// Threads    any.
// Ownership  what takeLargeMemory or growLargeMemory returns is given back once, with its size.
// Errors     null, without a change, when the system has no more.
#pragma once

#include <cstddef>

// Sizes are multiples of this. Less is better had from operator new.
inline constexpr size_t kLargeMemoryUnit = size_t{2} << 20;

// Aligned for every type; what it holds is not defined.
[[nodiscard]] void* takeLargeMemory(size_t size) noexcept;

// Makes memory larger and keeps what it holds. What is returned takes its place, at another address
// perhaps. REQUIRES: newSize > size.
[[nodiscard]] void* growLargeMemory(void* memory, size_t size, size_t newSize) noexcept;

// Has the pages of one unit at hand, which is cheaper than to be handed out one after the other
// when they are first used. unit is a whole number of units behind the beginning. False where the
// system cannot do that; nothing is lost then.
bool prepareLargeMemory(void* unit) noexcept;

void giveBackLargeMemory(void* memory, size_t size) noexcept;
