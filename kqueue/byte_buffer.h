// What the stream sources need of a growable byte buffer beyond std::vector. Internal to the
// library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace hxkqueue {

// Removes count bytes, or all if there are fewer, from the front; the rest moves down.
inline void removeFront(std::vector<char>& buffer, uint64_t count) {
    const uint64_t removed = std::min<uint64_t>(count, buffer.size());
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(removed));
}

}  // namespace hxkqueue
