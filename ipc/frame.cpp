#include "ipc/frame.h"

namespace {

uint32_t readLittleEndian(const char* bytes) noexcept {
    uint32_t value = 0;
    for (unsigned i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return value;
}

void appendLittleEndian(std::vector<char>& out, uint32_t value) {
    for (unsigned i = 0; i < 4; ++i)
        out.push_back(static_cast<char>(value >> (8 * i) & 0xff));
}

}  // namespace

FrameHeader readFrameHeader(const char* bytes) noexcept {
    return {.command = static_cast<int32_t>(readLittleEndian(bytes)),
            .length = readLittleEndian(bytes + 4)};
}

std::vector<char> makeFrame(int32_t command, std::string_view payload) {
    std::vector<char> frame;
    frame.reserve(kFrameHeaderSize + payload.size());
    appendLittleEndian(frame, static_cast<uint32_t>(command));
    appendLittleEndian(frame, static_cast<uint32_t>(payload.size()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}
