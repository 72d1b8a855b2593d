// The client's requests: what is sent is one frame that says what was asked for, or nothing, and
// then words that say why.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/support/captured_output.h"
#include "fuzz/support/loop_without_kernel.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/plain_reading.h"
#include "ipc/HXTarnIPCClient.h"
#include "ipc/frame.h"

namespace {

namespace json = boost::json;

// As RFC 3629 has it: the shortest form only, no surrogates, nothing beyond U+10FFFF.
bool isWellFormed(std::string_view text) {
    const auto byte = [text](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    for (size_t i = 0; i < text.size();) {
        const unsigned first = byte(i);
        const unsigned second = byte(i + 1);
        const size_t size = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
        if ((first >= 0x80 && first < 0xc2) || first > 0xf4) return false;
        if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f)) return false;
        if ((first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f)) return false;
        for (size_t k = 1; k < size; ++k)
            if ((byte(i + k) & 0xc0) != 0x80) return false;
        i += size;
    }
    return true;
}

// What a caller asks of the client.
struct Wish {
    std::string action;
    std::string host;  // up to its first NUL
    bool hasHost;
    uint16_t port;
    uint32_t serverId;
    uint32_t deviceId;
    bool once;
    uint8_t request;
};

enum Request : uint8_t { List, Add, ServerByHost, ServerById, DeviceByHost, DeviceById };

Wish takeWish(FuzzedDataProvider& input) {
    constexpr const char* kActions[] = {"plug", "unplug", "remove", "disconnect", "reconnect"};
    Wish wish;
    wish.request = input.ConsumeIntegralInRange<uint8_t>(List, DeviceById);
    wish.port = input.ConsumeIntegral<uint16_t>();
    wish.serverId = input.ConsumeIntegral<uint32_t>();
    wish.deviceId = input.ConsumeIntegral<uint32_t>();
    wish.once = input.ConsumeBool();
    wish.hasHost = input.ConsumeIntegral<uint8_t>() != 0;
    const auto word = input.ConsumeIntegralInRange<size_t>(0, 7);
    wish.action = word < 5 ? kActions[word] : input.ConsumeRandomLengthString();
    wish.host = input.ConsumeRemainingBytesAsString();
    wish.host.resize(std::min(wish.host.find('\0'), wish.host.size()));
    return wish;
}

void send(const Wish& wish) {
    static const std::shared_ptr<HXKQueue> loop = loopWithoutKernel();
    static const std::shared_ptr<HXTarnIPCClient> client = HXTarnIPCClient::initWithKQueue(loop);
    const char* host = wish.hasHost ? wish.host.c_str() : nullptr;
    switch (wish.request) {
        case List:
            return client->requestServerList();
        case Add:
            return client->requestAddServer(host, wish.port);
        case ServerByHost:
            return client->requestServerAction(wish.action, host, wish.port);
        case ServerById:
            return client->requestServerAction(wish.action, wish.serverId);
        case DeviceByHost:
            return client->requestDeviceAction(wish.action, host, wish.port, wish.deviceId,
                                               wish.once);
        default:
            return client->requestDeviceAction(wish.action, wish.serverId, wish.deviceId,
                                               wish.once);
    }
}

bool namesHost(const Wish& wish) {
    return wish.request == Add || wish.request == ServerByHost || wish.request == DeviceByHost;
}

// Why nothing can be sent; empty if it can.
std::string reasonAgainst(const Wish& wish) {
    const bool hasAction = wish.request != List && wish.request != Add;
    if (namesHost(wish) && (!wish.hasHost || !isWellFormed(wish.host)))
        return "cannot allocate object for request";
    if (hasAction && !isWellFormed(wish.action)) return "cannot convert dictionary to JSON";
    return "";
}

json::object dictionaryOf(const Wish& wish) {
    json::object dictionary;
    if (wish.request != Add) dictionary.emplace("action", wish.action);
    if (namesHost(wish)) {
        dictionary.emplace("host", wish.host);
        dictionary.emplace("port", wish.port);
    }
    if (wish.request == ServerById) dictionary.emplace("id", wish.serverId);
    if (wish.request == DeviceById) dictionary.emplace("server-id", wish.serverId);
    if (wish.request == DeviceByHost || wish.request == DeviceById) {
        dictionary.emplace("device-id", wish.deviceId);
        if (wish.action == "plug") dictionary.emplace("once", wish.once);
    }
    return dictionary;
}

int32_t codeOf(const Wish& wish) {
    constexpr int32_t kCodes[] = {0, 1, 2, 2, 3, 3};
    return kCodes[wish.request];
}

void requireSent(const Wish& wish, const std::string& sent) {
    if (wish.request == List)
        return requireEqual(sent, std::string(8, '\0'), "a request without a payload");
    const PlainReading reading = readPlainly(sent);
    const json::value expected = dictionaryOf(wish);
    const bool isOneFrame = reading.replies.size() == 1 && reading.size == sent.size();
    if (!isOneFrame || reading.replies.front().first != codeOf(wish) ||
        reading.replies.front().second != expected)
        refute("one frame says what was asked for\nactual:   " + print(reading) +
               "\nexpected: " + std::to_string(codeOf(wish)) + ' ' + json::serialize(expected));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CapturedOutput err(stderr);
    FuzzedDataProvider input(data, size);
    const Wish wish = takeWish(input);
    send(wish);
    const std::string sent = std::exchange(loopLog().written, "");
    const std::string reason = reasonAgainst(wish);
    requireEqual(err.take(), reason, "words of a request");
    if (reason.empty())
        requireSent(wish, sent);
    else
        requireEqual(sent, "", "what is sent instead");
    return 0;
}
