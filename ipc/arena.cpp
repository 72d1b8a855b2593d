#include "ipc/arena.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "platform/large_memory.h"

namespace {

// Of a reply that holds the state of a few servers, the first block takes all.
constexpr size_t kFirstBlock = 4096;

// A thread pays when it has many units to prepare.
constexpr size_t kLeastForThread = size_t{8} << 20;

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

// A thread that has the units of a block at hand before they are used: the system takes as long to
// hand out memory as a third of what the reader takes to fill it. It keeps so little ahead that
// hardly more memory is touched than is used.
class Arena::Preparer {
public:
    // The first unit is left out. Throws std::system_error when there is no thread to be had.
    Preparer(char* block_, size_t size)
        : block(block_), units(size / kLargeMemoryUnit), thread([this] { run(); }) {}
    Preparer(const Preparer&) = delete;
    Preparer& operator=(const Preparer&) = delete;

    ~Preparer() {
        ended = true;
        useNext();
        thread.join();
    }

    // One more unit is in use.
    void useNext() noexcept {
        ++used;
        used.notify_one();
    }

private:
    static constexpr size_t kAhead = 8;

    void run() noexcept {
        for (size_t unit = 1; unit < units && waitUntilUsed(unit - std::min(unit, kAhead)); ++unit)
            prepareLargeMemory(block + unit * kLargeMemoryUnit);
    }

    // Until so many units behind the first are in use; false at the end.
    bool waitUntilUsed(size_t count) noexcept {
        for (size_t seen = used; seen < count && !ended; seen = used)
            used.wait(seen);
        return !ended;
    }

    char* const block;
    const size_t units;
    std::atomic<size_t> used = 0;
    std::atomic<bool> ended = false;
    std::thread thread;  // last, because it uses the others
};

Arena::Arena() noexcept = default;

Arena::~Arena() {
    preparer.reset();
    giveBackBlocks(nullptr);
}

void Arena::clear() noexcept {
    preparer.reset();
    Block* first = last;
    while (first && first->before)
        first = first->before;
    const bool isSmall = first != nullptr && first->size <= kFirstBlock;
    giveBackBlocks(isSmall ? first : nullptr);
    left = 0;
    unprepared = 0;
    if (isSmall) open(first);
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
    if (preparer)
        preparer->useNext();
    else
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
    open(::new (memory) Block{.before = last, .size = size});
    prepare(memory, size);
}

// All of it is free.
void Arena::open(Block* block) noexcept {
    const size_t ready = std::min(block->size, kLargeMemoryUnit);
    last = block;
    next = reinterpret_cast<char*>(block + 1);
    left = ready - sizeof(Block);
    unprepared = block->size - ready;
}

// Those that were added after end.
void Arena::giveBackBlocks(const Block* end) noexcept {
    while (last != end) {
        Block* block = last;
        last = block->before;
        giveBack(block, block->size);
    }
}

// Where there is no thread to be had the reader prepares its units itself.
void Arena::prepare(void* block, size_t size) noexcept {
    preparer.reset();
    if (size < kLargeMemoryUnit || !prepareLargeMemory(block)) return;
    if (size < kLeastForThread || std::thread::hardware_concurrency() < 2) return;
    try {
        preparer = std::make_unique<Preparer>(static_cast<char*>(block), size);
    } catch (const std::exception&) {
        return;
    }
}
