// Bytes to send, and plain ways to send and receive them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t kMebibyte = size_t{1} << 20;

// Bytes without a pattern; the same for the same seed.
[[nodiscard]] std::string noise(size_t size, uint32_t seed);

// Writes until the other side has taken nothing for a while, or all is written. Returns how much
// was. A while that was too short makes for fewer bytes.
[[nodiscard]] size_t writeUntilStalled(int fd, std::string_view bytes);

[[nodiscard]] std::string readToEnd(int fd);
