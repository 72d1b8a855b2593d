#include "ipc/HXTarnIPCClient.h"

#include <algorithm>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ipc/arena.h"
#include "ipc/frame.h"
#include "ipc/json.h"
#include "ipc/json_reader.h"
#include "ipc/request.h"
#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueUnixClient.h"

namespace {

bool isJson(std::string_view text) noexcept {
    Arena arena;
    return readJson(text, &arena).has_value();
}

// The writer puts out what it is given, so the reader decides whether that is JSON.
std::optional<std::string> serialise(const boost::json::object* object) noexcept {
    try {
        std::string text = object ? boost::json::serialize(*object) : std::string();
        if (!object || isJson(text)) return text;
    } catch (const std::exception&) {  // bad_alloc, or length_error for an absurd size
    }
    return std::nullopt;
}

// Puts a callback in the place of another, which goes after the lock is released: what it holds
// may call the client as it goes.
template <typename Callback>
bool replace(std::mutex& lock, std::shared_ptr<const Callback>& place, Callback callback) noexcept {
    std::shared_ptr<const Callback> next;
    try {
        if (callback) next = std::make_shared<const Callback>(std::move(callback));
    } catch (const std::bad_alloc&) {
        return false;
    }
    const std::lock_guard guard(lock);
    place.swap(next);
    return true;
}

// A frame's payload is read while it arrives if it takes many reads to arrive.
constexpr uint64_t kReadAheadFrom = 65536;

}  // namespace

// What has been read of a frame, and the memory it lives in.
struct HXTarnIPCClient::FrameReading {
    // Whether payload is the beginning, or all, of the frame of which a part has been read.
    [[nodiscard]] bool isOf(const FrameHeader& other, std::string_view payload) const noexcept {
        return header.command == other.command && header.length == other.length &&
               taken <= payload.size();
    }

    void begin(const FrameHeader& next) noexcept {
        header = next;
        taken = 0;
        arena.clear();
        reader.begin(&arena);
    }

    void readOn(std::string_view payload) noexcept {
        const bool isAll = payload.size() == header.length;
        const size_t end = isAll ? payload.size() : std::max(taken, wholeCharacters(payload));
        reader.add(payload.substr(taken, end - taken));
        taken = end;
    }

    // None if the payload cannot be read. What is read next is another frame.
    [[nodiscard]] std::optional<boost::json::value> finish() noexcept {
        header = {};
        return reader.finish();
    }

    FrameHeader header = {};  // of no length while no frame has been begun
    size_t taken = 0;         // of the payload
    Arena arena;
    JsonReader reader;
};

std::shared_ptr<HXTarnIPCClient> HXTarnIPCClient::initWithKQueue(
    const std::shared_ptr<HXKQueue>& loop, const char* path) {
    std::shared_ptr<HXTarnIPCClient> client;
    try {
        client = std::make_shared<HXTarnIPCClient>(Private());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    client->unix = loop->createUnixClient(path);
    if (!client->unix) return nullptr;
    client->kq = loop;
    return client;
}

HXTarnIPCClient::HXTarnIPCClient(Private /*unused*/) noexcept {}

HXTarnIPCClient::~HXTarnIPCClient() = default;

void HXTarnIPCClient::start() {
    const auto loop = kq.lock();
    if (!loop) return;
    HXKQueueEventBlock block;
    try {
        block = [self = shared_from_this()](const auto&... event) {
            return self->handleEvent(event...);
        };
    } catch (const std::bad_alloc&) {
        handleEvent(currentSocket(), nullptr, 0, nullptr, HXKQueueEventCannotConnect);
        return;
    }
    loop->startObject(currentSocket(), std::move(block));
}

void HXTarnIPCClient::stop() {
    if (const auto loop = kq.lock()) loop->stopObject(currentSocket());
    std::shared_ptr<HXKQueueEventProtocol> stopped;
    {
        const std::lock_guard guard(lock);
        stopped.swap(unix);
    }
    stopped.reset();
    replace(lock, _onData, OnData());
    replace(lock, _onConnected, OnConnected());
    replace(lock, _onError, OnError());
}

bool HXTarnIPCClient::setOnConnected(OnConnected callback) noexcept {
    return replace(lock, _onConnected, std::move(callback));
}

bool HXTarnIPCClient::setOnData(OnData callback) noexcept {
    return replace(lock, _onData, std::move(callback));
}

bool HXTarnIPCClient::setOnError(OnError callback) noexcept {
    return replace(lock, _onError, std::move(callback));
}

std::shared_ptr<const HXTarnIPCClient::OnConnected> HXTarnIPCClient::onConnected() const noexcept {
    const std::lock_guard guard(lock);
    return _onConnected;
}

std::shared_ptr<const HXTarnIPCClient::OnData> HXTarnIPCClient::onData() const noexcept {
    const std::lock_guard guard(lock);
    return _onData;
}

std::shared_ptr<const HXTarnIPCClient::OnError> HXTarnIPCClient::onError() const noexcept {
    const std::lock_guard guard(lock);
    return _onError;
}

void HXTarnIPCClient::requestServerList() {
    sendJSON(nullptr, kListServers);
}

void HXTarnIPCClient::requestAddServer(const char* host, uint16_t port) {
    Request request;
    if (request.create() && request.addHost(host, port))
        sendJSON(&request.dictionary(), kAddServer);
}

void HXTarnIPCClient::requestServerAction(std::string_view action, const char* host,
                                          uint16_t port) {
    Request request;
    if (request.create(action) && request.addHost(host, port))
        sendJSON(&request.dictionary(), kServerAction);
}

void HXTarnIPCClient::requestServerAction(std::string_view action, uint32_t Id) {
    Request request;
    if (request.create(action) && request.addId("id", Id))
        sendJSON(&request.dictionary(), kServerAction);
}

void HXTarnIPCClient::requestDeviceAction(std::string_view action, const char* host, uint16_t port,
                                          uint32_t deviceId, bool once) {
    Request request;
    if (request.create(action) && request.addHost(host, port) &&
        request.addId("device-id", deviceId) && request.addOnce(once))
        sendJSON(&request.dictionary(), kDeviceAction);
}

void HXTarnIPCClient::requestDeviceAction(std::string_view action, uint32_t serverId,
                                          uint32_t deviceId, bool once) {
    Request request;
    if (request.create(action) && request.addId("server-id", serverId) &&
        request.addId("device-id", deviceId) && request.addOnce(once))
        sendJSON(&request.dictionary(), kDeviceAction);
}

void HXTarnIPCClient::sendJSON(const boost::json::object* object, int32_t command) {
    const std::optional<std::string> payload = serialise(object);
    if (!payload) {
        std::fputs("cannot convert dictionary to JSON", stderr);
        return;
    }
    std::vector<char> frame;
    try {
        frame = makeFrame(command, *payload);
    } catch (const std::exception&) {  // bad_alloc, or length_error for an absurd size
        return;
    }
    if (const auto loop = kq.lock()) loop->write(currentSocket(), frame.data(), frame.size());
}

// The length is checked before the frame is complete: nobody waits for a payload that is refused.
bool HXTarnIPCClient::parseProtocolBuffer(const char* bytes, uint64_t size, uint64_t* dropSize) {
    uint64_t used = 0;
    while (size - used >= kFrameHeaderSize) {
        const FrameHeader header = readFrameHeader(bytes + used);
        if (header.length == 0 || header.length > kMaxPayloadLength) {
            reading.reset();
            std::fputs("invalid protocol\n", stderr);
            return false;
        }
        const uint64_t there = std::min<uint64_t>(size - used - kFrameHeaderSize, header.length);
        const std::string_view payload(bytes + used + kFrameHeaderSize, there);
        if (there < header.length) {
            readAhead(header, payload);
            break;
        }
        if (!deliverFrame(header, payload)) return false;
        used += kFrameHeaderSize + header.length;
    }
    *dropSize = used;
    return true;
}

// Only the decoder touches dropSize: after bytes that it refuses, the socket discards them all.
bool HXTarnIPCClient::handleEvent(const std::shared_ptr<HXKQueueEventProtocol>& /*source*/,
                                  const char* bytes, uint64_t size, uint64_t* dropSize,
                                  int32_t code) {
    switch (code) {
        case HXKQueueEventConnected:
            if (const auto callback = onConnected()) (*callback)();
            return true;
        case HXKQueueEventData:
            if (parseProtocolBuffer(bytes, size, dropSize)) return true;
            break;
        case HXKQueueEventTerminated:
            std::fputs("connection terminated\n", stderr);
            break;
        case HXKQueueEventCannotConnect:
            std::fputs("cannot connect\n", stderr);
            break;
        default:
            return true;
    }
    reading.reset();  // the socket discards the bytes that it is of
    if (const auto callback = onError()) (*callback)();
    return true;
}

// Without memory to begin with, the frame is read when it is complete. What goes wrong on the way,
// a lack of memory included, is told then, too.
void HXTarnIPCClient::readAhead(const FrameHeader& header, std::string_view payload) noexcept {
    if (payload.size() < kReadAheadFrom) return;
    reading = readingOf(header, payload);
    if (reading) reading->readOn(payload);
}

// What goes on with this frame, or begins it. Null when memory is short.
std::unique_ptr<HXTarnIPCClient::FrameReading> HXTarnIPCClient::readingOf(
    const FrameHeader& header, std::string_view payload) noexcept {
    std::unique_ptr<FrameReading> frame = std::move(reading);
    if (frame && frame->isOf(header, payload)) return frame;
    if (!frame) frame.reset(new (std::nothrow) FrameReading);
    if (frame) frame->begin(header);
    return frame;
}

// All that the payload is parsed into lives in the arena, and goes with it before the next frame.
// The memory of a small one is kept for that.
bool HXTarnIPCClient::deliverFrame(const FrameHeader& header, std::string_view payload) {
    std::unique_ptr<FrameReading> frame = readingOf(header, payload);
    if (frame) frame->readOn(payload);
    const std::optional<boost::json::value> reply = frame ? frame->finish() : std::nullopt;
    if (!reply) {
        std::fputs("cannot parse protocol", stderr);
        return false;
    }
    if (!reply->is_object()) {
        std::fputs("cannot parse JSON, got wrong top-level object", stderr);
        return false;
    }
    if (const auto callback = onData()) (*callback)(header.command, reply->get_object());
    if (header.length < kReadAheadFrom) reading = std::move(frame);
    return true;
}

std::shared_ptr<HXKQueueEventProtocol> HXTarnIPCClient::currentSocket() const noexcept {
    const std::lock_guard guard(lock);
    return unix;
}
