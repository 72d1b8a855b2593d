#include "ipc/arena.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "platform/large_memory.h"

namespace {

// Of a reply that holds the state of a few servers, the first block takes all.
constexpr size_t kFirstBlock = 4096;

constexpr size_t kLargestPiece = PTRDIFF_MAX / 4;

// Larger ones save nothing.
constexpr size_t kLargestGrowth = size_t{64} << 20;

}  // namespace

struct alignas(std::max_align_t) Arena::Block {
    Block* before;
    size_t size;  // with this head; from kLargeMemoryUnit on it is large memory
};

namespace {

void* take(size_t size) {
    if (size < kLargeMemoryUnit) return ::operator new(size);
    if (void* memory = takeLargeMemory(size)) return memory;
    throw std::bad_alloc();
}

void giveBack(void* memory, size_t size) noexcept {
    if (size < kLargeMemoryUnit)
        ::operator delete(memory);
    else
        giveBackLargeMemory(memory, size);
}

}  // namespace

Arena::~Arena() {
    while (last) {
        Block* block = last;
        last = block->before;
        giveBack(block, block->size);
    }
}

void* Arena::do_allocate(size_t size, size_t alignment) {
    void* place = next;
    while (!std::align(alignment, size, place, left)) {
        makeRoom(size, alignment);
        place = next;
    }
    next = static_cast<char*>(place) + size;
    left -= size;
    return place;
}

void Arena::makeRoom(size_t size, size_t alignment) {
    if (size > kLargestPiece) throw std::bad_alloc();
    if (size + alignment > left + unprepared) {
        addBlock(size + alignment);
        return;
    }
    prepareLargeMemory(next + left);
    left += kLargeMemoryUnit;
    unprepared -= kLargeMemoryUnit;
}

// Sizes are powers of two, so that the large ones are made of whole units.
void Arena::addBlock(size_t least) {
    size_t size = last ? std::min(2 * last->size, kLargestGrowth) : kFirstBlock;
    while (size - sizeof(Block) < least)
        size *= 2;
    void* memory = take(size);
    const size_t ready = std::min(size, kLargeMemoryUnit);
    last = ::new (memory) Block{.before = last, .size = size};
    next = reinterpret_cast<char*>(last + 1);
    left = ready - sizeof(Block);
    unprepared = size - ready;
    if (ready == kLargeMemoryUnit) prepareLargeMemory(memory);
}
