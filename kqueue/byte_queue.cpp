#include "kqueue/byte_queue.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "platform/large_memory.h"

namespace hxkqueue {

namespace {

constexpr size_t kMaxCapacity = PTRDIFF_MAX / 2;

bool isLarge(size_t capacity) noexcept {
    return capacity >= kLargeMemoryUnit;
}

size_t roundUp(size_t capacity) noexcept {
    return (capacity + kLargeMemoryUnit - 1) / kLargeMemoryUnit * kLargeMemoryUnit;
}

char* orThrow(void* memory) {
    if (!memory) throw std::bad_alloc();
    return static_cast<char*>(memory);
}

char* take(size_t capacity) {
    return orThrow(isLarge(capacity) ? takeLargeMemory(capacity) : ::operator new(capacity));
}

}  // namespace

ByteQueue::~ByteQueue() {
    giveBack();
}

void ByteQueue::append(const char* added, uint64_t count) {
    if (count > 0) std::memcpy(appendSpace(count), added, count);
}

char* ByteQueue::appendSpace(uint64_t count) {
    if (count > kMaxCapacity - end) throw std::length_error("ByteQueue");
    if (count > capacity - end) growTo(std::max<size_t>(end + count, 2 * capacity));
    char* space = memory + end;
    end += count;
    if (isLarge(capacity)) prepare();
    return space;
}

void ByteQueue::removeFront(uint64_t count) noexcept {
    begin += static_cast<size_t>(std::min<uint64_t>(count, size()));
    if (begin < end - begin) return;
    if (!empty()) std::memmove(memory, memory + begin, size());
    end -= begin;
    begin = 0;
}

// From the front to the end of what has ever been held, which is where the next bytes go.
void ByteQueue::prepare() noexcept {
    for (; prepared < end; prepared += kLargeMemoryUnit)
        prepareLargeMemory(memory + prepared);
}

void ByteQueue::growTo(size_t newCapacity) {
    if (isLarge(newCapacity)) newCapacity = roundUp(newCapacity);
    if (isLarge(capacity))
        memory = orThrow(growLargeMemory(memory, capacity, newCapacity));
    else
        moveTo(newCapacity);
    capacity = newCapacity;
}

void ByteQueue::moveTo(size_t newCapacity) {
    char* other = take(newCapacity);
    if (!empty()) std::memcpy(other, data(), size());
    giveBack();
    memory = other;
    end -= begin;
    begin = 0;
}

void ByteQueue::giveBack() noexcept {
    if (isLarge(capacity))
        giveBackLargeMemory(memory, capacity);
    else
        ::operator delete(memory);
}

}  // namespace hxkqueue
