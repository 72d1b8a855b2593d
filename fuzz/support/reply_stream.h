// The bytes that a peer sends, made of the fuzzer's, and how they arrive.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Takes from input a stream of frames whose announced lengths fit, mostly, with what is no frame
// between them. A payload may be stretched with white space or text, far enough for the decoder to
// read it while it arrives.
[[nodiscard]] std::string makeStream(FuzzedDataProvider& input);

// Where to cut a stream, a dozen times at most. Taken from input before the stream is, which may
// take all the rest.
using Cuts = std::vector<uint32_t>;
[[nodiscard]] Cuts takeCuts(FuzzedDataProvider& input);

// The pieces, none of them empty.
[[nodiscard]] std::vector<std::string_view> cut(std::string_view bytes, const Cuts& cuts);

// A socket's receive buffer as its owner sees it.
class ReceiveBuffer {
public:
    // What shows the owner bytes and lets it say how many of them it has consumed.
    using Owner = std::function<void(const char* bytes, uint64_t size, uint64_t* dropSize)>;

    // Puts the piece behind what was kept and shows the owner all. Returns how many bytes went.
    uint64_t receive(std::string_view piece, const Owner& owner);

    [[nodiscard]] const std::string& kept() const { return bytes; }

private:
    std::string bytes;
};
