#include "fuzz/support/reply_stream.h"

#include <algorithm>

#include "ipc/frame.h"

namespace {

constexpr size_t kMostFrames = 6;
constexpr size_t kMostCuts = 12;

// More than the decoder waits for before it reads ahead.
constexpr size_t kStretch = 66'000;

void stretch(std::string& payload, FuzzedDataProvider& input) {
    const auto place = input.ConsumeIntegralInRange<size_t>(0, payload.size());
    payload.insert(place, kStretch, input.PickValueInArray({' ', '0', 'a', '[', '\xc3'}));
}

std::string makePart(FuzzedDataProvider& input) {
    const auto shape = input.ConsumeIntegral<uint8_t>();
    const bool isLast = (shape & 1) != 0;
    std::string bytes =
        isLast ? input.ConsumeRemainingBytesAsString() : input.ConsumeRandomLengthString();
    if ((shape & 0xe) == 0xe) return bytes;  // no frame, or only by chance
    if ((shape & 0x30) == 0x30) stretch(bytes, input);
    const std::vector<char> frame = makeFrame(static_cast<int8_t>(shape >> 6), bytes);
    return {frame.begin(), frame.end()};
}

}  // namespace

std::string makeStream(FuzzedDataProvider& input) {
    std::string stream;
    for (size_t i = 0; i < kMostFrames && input.remaining_bytes() > 0; ++i)
        stream += makePart(input);
    return stream;
}

Cuts takeCuts(FuzzedDataProvider& input) {
    Cuts cuts(input.ConsumeIntegralInRange<size_t>(0, kMostCuts));
    for (uint32_t& place : cuts)
        place = input.ConsumeIntegralInRange<uint32_t>(0, 0x1ffff);
    return cuts;
}

std::vector<std::string_view> cut(std::string_view bytes, const Cuts& cuts) {
    std::vector<size_t> places;
    for (const uint32_t place : cuts)
        places.push_back(place % (bytes.size() + 1));
    places.push_back(bytes.size());
    std::sort(places.begin(), places.end());
    std::vector<std::string_view> pieces;
    size_t begin = 0;
    for (const size_t end : places) {
        if (end > begin) pieces.push_back(bytes.substr(begin, end - begin));
        begin = end;
    }
    return pieces;
}

uint64_t ReceiveBuffer::receive(std::string_view piece, const Owner& owner) {
    bytes.append(piece);
    uint64_t drop = bytes.size();
    owner(bytes.data(), bytes.size(), &drop);
    const uint64_t dropped = std::min<uint64_t>(drop, bytes.size());
    bytes.erase(0, dropped);
    return dropped;
}
