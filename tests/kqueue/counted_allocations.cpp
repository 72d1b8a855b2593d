#include "tests/kqueue/counted_allocations.h"

#include <malloc.h>
#include <sys/event.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// An allocation may happen before, and after, everything else in the process.
constinit std::atomic<size_t> inUse = 0;

}  // namespace

size_t bytesInUse() noexcept {
    return inUse;
}

size_t bytesInUseWithoutClosedQueues() {
    close(::kqueue());
    close(::kqueue());
    return bytesInUse();
}

// The others, but for those of types with an alignment of their own, end up in these.
void* operator new(std::size_t size) {
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (!memory) throw std::bad_alloc();
    inUse.fetch_add(malloc_usable_size(memory), std::memory_order_relaxed);
    return memory;
}

void operator delete(void* memory) noexcept {
    inUse.fetch_sub(malloc_usable_size(memory), std::memory_order_relaxed);
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}
