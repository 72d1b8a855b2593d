// A contiguous row of bytes that grows at its end and is consumed from its front. Internal to the
// library.
//
// What is consumed stays where it is until it makes up half of the memory; only then does the rest
// move down. So each byte moves a bounded number of times, however small the pieces are that it
// leaves in. Memory, once had, is kept until the end of the queue.
#pragma once

#include <cstddef>
#include <cstdint>

namespace hxkqueue {

class ByteQueue {
public:
    ByteQueue() noexcept = default;
    ByteQueue(const ByteQueue&) = delete;
    ByteQueue& operator=(const ByteQueue&) = delete;
    ~ByteQueue();

    // Valid until the queue is changed.
    [[nodiscard]] const char* data() const noexcept { return memory + begin; }
    [[nodiscard]] size_t size() const noexcept { return end - begin; }
    [[nodiscard]] bool empty() const noexcept { return begin == end; }

    // Throws std::bad_alloc or std::length_error; nothing has changed then.
    void append(const char* added, uint64_t count);

    // Appends count bytes for the caller to fill, and returns where they begin. Throws as append
    // does.
    char* appendSpace(uint64_t count);

    // REQUIRES: there are so many.
    void removeBack(size_t count) noexcept { end -= count; }

    // Removes count bytes, or all if there are fewer.
    void removeFront(uint64_t count) noexcept;

private:
    void growTo(size_t newCapacity);
    void moveTo(size_t newCapacity);
    void prepare() noexcept;
    void giveBack() noexcept;

    char* memory = nullptr;
    size_t capacity = 0;  // from kLargeMemoryUnit on, memory is large memory
    size_t begin = 0;     // of what is held, in memory
    size_t end = 0;
    size_t prepared = 0;  // of large memory
};

}  // namespace hxkqueue
