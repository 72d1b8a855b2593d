#include "platform/large_memory.h"

#include <sys/mman.h>

namespace {

// Since Linux 5.14; older headers do not name it. Where the kernel does not know it, the faults
// come one by one.
constexpr int kPopulateForWriting = 23;

void* orNull(void* memory) noexcept {
    return memory == MAP_FAILED ? nullptr : memory;
}

}  // namespace

void* takeLargeMemory(size_t size) noexcept {
    return orNull(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

void* growLargeMemory(void* memory, size_t size, size_t newSize) noexcept {
    return orNull(mremap(memory, size, newSize, MREMAP_MAYMOVE));
}

bool prepareLargeMemory(void* unit) noexcept {
    return madvise(unit, kLargeMemoryUnit, kPopulateForWriting) == 0;
}

void giveBackLargeMemory(void* memory, size_t size) noexcept {
    munmap(memory, size);
}
