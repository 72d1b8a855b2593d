// The frame in which requests and replies travel, both ways, with nothing between frames:
//
//     offset 0   4 bytes   command code, signed, little-endian
//     offset 4   4 bytes   payload length, unsigned, little-endian, without the header
//     offset 8             the payload, UTF-8 JSON
//
// A reply carries the code of its request. A request may be empty; a reply may not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

inline constexpr size_t kFrameHeaderSize = 8;

// The longest payload that is accepted: 100 MiB.
inline constexpr uint32_t kMaxPayloadLength = 104'857'600;

enum CommandCode : int32_t {
    kListServers = 0,
    kAddServer = 1,
    kServerAction = 2,
    kDeviceAction = 3,
};

struct FrameHeader {
    int32_t command;
    uint32_t length;
};

// bytes holds at least kFrameHeaderSize bytes.
[[nodiscard]] FrameHeader readFrameHeader(const char* bytes) noexcept;

// A whole frame. Throws std::bad_alloc.
[[nodiscard]] std::vector<char> makeFrame(int32_t command, std::string_view payload);
