// A contiguous row of bytes that grows at its end and is consumed from its front. Internal to the
// library.
//
// What is consumed stays where it is until it makes up half of the memory; only then does the rest
// move down. So each byte moves a bounded number of times, however small the pieces are that it
// leaves in.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace hxkqueue {

class ByteQueue {
public:
    // Valid until the queue is changed.
    [[nodiscard]] const char* data() const noexcept { return bytes.data() + consumed; }
    [[nodiscard]] size_t size() const noexcept { return bytes.size() - consumed; }
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }

    // Throws std::bad_alloc or std::length_error; nothing has changed then.
    void append(const char* added, uint64_t count) {
        if (count > bytes.max_size() - bytes.size()) throw std::length_error("ByteQueue");
        bytes.insert(bytes.end(), added, added + count);
    }

    // Appends count zeros, and returns where they begin. Throws as append does.
    char* appendZeros(size_t count) {
        const size_t before = bytes.size();
        bytes.resize(before + count);
        return bytes.data() + before;
    }

    // REQUIRES: there are so many.
    void removeBack(size_t count) noexcept { bytes.resize(bytes.size() - count); }

    // Removes count bytes, or all if there are fewer.
    void removeFront(uint64_t count) noexcept {
        consumed += static_cast<size_t>(std::min<uint64_t>(count, size()));
        if (consumed < bytes.size() - consumed) return;
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(consumed));
        consumed = 0;
    }

private:
    std::vector<char> bytes;
    size_t consumed = 0;  // of bytes, from the front
};

}  // namespace hxkqueue
