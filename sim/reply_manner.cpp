#include "sim/reply_manner.h"

#include <algorithm>
#include <string>

#include "ipc/frame.h"

namespace {

using Bytes = std::vector<char>;

constexpr size_t kLengthOffset = 4;

constexpr uint32_t kDefaultDelayMs = 1000;
constexpr uint32_t kDefaultByteDelayMs = 5;

Bytes nothing(int32_t /*command*/, std::string_view /*payload*/) {
    return {};
}

Bytes firstHalf(int32_t command, std::string_view payload) {
    Bytes frame = makeFrame(command, payload);
    frame.resize(frame.size() / 2);
    return frame;
}

// Its second four bytes announce more than any frame may hold.
Bytes garbage(int32_t /*command*/, std::string_view /*payload*/) {
    constexpr std::string_view kText = "This is not a frame.\n";
    return {kText.begin(), kText.end()};
}

Bytes notJson(int32_t command, std::string_view /*payload*/) {
    return makeFrame(command, "This is not JSON.");
}

Bytes array(int32_t command, std::string_view payload) {
    return makeFrame(command, '[' + std::string(payload) + ']');
}

Bytes frameThatAnnounces(uint32_t length, int32_t command, std::string_view payload) {
    Bytes frame = makeFrame(command, payload);
    for (size_t i = 0; i < 4; ++i, length >>= 8)
        frame[kLengthOffset + i] = static_cast<char>(length & 0xff);
    return frame;
}

Bytes oneByteMore(int32_t command, std::string_view payload) {
    return frameThatAnnounces(static_cast<uint32_t>(payload.size()) + 1, command, payload);
}

Bytes oneByteLess(int32_t command, std::string_view payload) {
    return frameThatAnnounces(static_cast<uint32_t>(payload.size()) - 1, command, payload);
}

Bytes noByte(int32_t command, std::string_view payload) {
    return frameThatAnnounces(0, command, payload);
}

Bytes aboveTheLimit(int32_t command, std::string_view payload) {
    return frameThatAnnounces(kMaxPayloadLength + 1, command, payload);
}

Bytes minusOne(int32_t command, std::string_view payload) {
    return frameThatAnnounces(0xffffffff, command, payload);
}

const ReplyManner kMisbehaviours[] = {
    {.word = "delay",
     .effect = "waits before each reply",
     .shape = makeFrame,
     .pace = Pace::WholeReplies,
     .delayMs = kDefaultDelayMs},
    {.word = "bytes",
     .effect = "waits before each byte of a reply, and sends it by itself",
     .shape = makeFrame,
     .pace = Pace::SingleBytes,
     .delayMs = kDefaultByteDelayMs},
    {.word = "silence", .effect = "never replies", .shape = nothing},
    {.word = "close-before",
     .effect = "closes the connection instead of replying",
     .shape = nothing,
     .closes = true},
    {.word = "close-during",
     .effect = "closes the connection after one half of a reply",
     .shape = firstHalf,
     .closes = true},
    {.word = "close-after",
     .effect = "closes the connection after one reply",
     .shape = makeFrame,
     .closes = true},
    {.word = "garbage", .effect = "sends what is no frame", .shape = garbage},
    {.word = "not-json", .effect = "sends a frame that holds no JSON", .shape = notJson},
    {.word = "array", .effect = "puts each reply into a JSON array", .shape = array},
    {.word = "length-long",
     .effect = "announces one byte more than it sends",
     .shape = oneByteMore},
    {.word = "length-short",
     .effect = "announces one byte less than it sends",
     .shape = oneByteLess},
    {.word = "length-zero", .effect = "announces a length of 0", .shape = noByte},
    {.word = "length-limit",
     .effect = "announces one byte more than a reply may have",
     .shape = aboveTheLimit},
    {.word = "length-negative", .effect = "announces a length of -1", .shape = minusOne},
};

}  // namespace

ReplyManner properManner() {
    return {.word = "", .effect = "", .shape = makeFrame};
}

std::span<const ReplyManner> misbehaviours() {
    return kMisbehaviours;
}

const ReplyManner* findMisbehaviour(std::string_view word) {
    const auto known = misbehaviours();
    const auto found = std::find_if(known.begin(), known.end(),
                                    [word](const ReplyManner& each) { return each.word == word; });
    return found == known.end() ? nullptr : &*found;
}
