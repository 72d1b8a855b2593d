#include "platform/large_memory.h"

#include <cstdlib>

// The allocator maps so much memory by itself, and remaps it in realloc.

void* takeLargeMemory(size_t size) noexcept {
    return std::malloc(size);
}

void* growLargeMemory(void* memory, size_t /*size*/, size_t newSize) noexcept {
    return std::realloc(memory, newSize);
}

bool prepareLargeMemory(void* /*unit*/) noexcept {
    return false;
}

void giveBackLargeMemory(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}
