// The connection to the daemon: sends requests, and turns what the socket reports into three
// callbacks. It neither queues requests nor matches replies to them, and does not stop itself
// after an error: its owner does, and believes nothing that is told in between.
//
//     auto client = HXTarnIPCClient::initWithKQueue(loop);
//     client->setOnError(onError);
//     client->setOnConnected([weak = std::weak_ptr(client)] { ... requestServerList(); });
//     client->setOnData(onData);
//     client->start();
//     ...
//     client->stop();
//
// Threads    any, for every operation but parseProtocolBuffer, which is the I/O thread's. The
//            callbacks run on the loop's I/O thread; onConnected runs inside start, on its
//            caller's thread, when the connection is complete by then. No lock is held meanwhile.
// Ownership  the client keeps its socket and its callbacks until stop, and the loop weakly. From
//            start to stop the socket keeps the client: a callback that refers to the client does
//            so weakly. Callbacks must not throw.
// Errors     a request that cannot be built, or bytes that cannot be read, are told in fixed words
//            on standard error. Nothing throws.
#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

#include "kqueue/HXKQueueEvent.h"

class HXKQueue;
struct FrameHeader;

inline constexpr const char* kDaemonSocketPath = "/var/run/hxusbvctl.sock";

class HXTarnIPCClient final : public std::enable_shared_from_this<HXTarnIPCClient> {
    struct Private {
        explicit Private() = default;
    };

public:
    using OnConnected = std::function<void()>;
    // code is the frame's command code; reply is valid during the call only.
    using OnData = std::function<void(int32_t code, const boost::json::object& reply)>;
    using OnError = std::function<void()>;

    // Connected or connecting. Null when the connect fails at once, as it does without a daemon.
    // Only tests have a path of their own.
    [[nodiscard]] static std::shared_ptr<HXTarnIPCClient> initWithKQueue(
        const std::shared_ptr<HXKQueue>& loop, const char* path = kDaemonSocketPath);

    explicit HXTarnIPCClient(Private /*only initWithKQueue makes one*/) noexcept;
    HXTarnIPCClient(const HXTarnIPCClient&) = delete;
    HXTarnIPCClient& operator=(const HXTarnIPCClient&) = delete;
    ~HXTarnIPCClient();

    // Lets events flow to the callbacks. Once, after the loop's start. Without the memory for it,
    // tells what a failed connect tells.
    void start();

    // Closes the connection, at the I/O thread's next iteration, and drops the callbacks.
    void stop();

    // The callbacks may be replaced at any time; each event takes the current one. An empty one
    // counts as none. False, with the earlier one kept, when memory is short.
    [[nodiscard]] bool setOnConnected(OnConnected callback) noexcept;
    [[nodiscard]] bool setOnData(OnData callback) noexcept;
    [[nodiscard]] bool setOnError(OnError callback) noexcept;

    // Null for none.
    [[nodiscard]] std::shared_ptr<const OnConnected> onConnected() const noexcept;
    [[nodiscard]] std::shared_ptr<const OnData> onData() const noexcept;
    [[nodiscard]] std::shared_ptr<const OnError> onError() const noexcept;

    // The requests, after start. Each sends one frame, or says why not and sends nothing. Numbers
    // and texts are sent as they are given; a host is NUL-terminated UTF-8. once goes out with the
    // action "plug" only.
    void requestServerList();
    void requestAddServer(const char* host, uint16_t port);
    void requestServerAction(std::string_view action, const char* host, uint16_t port);
    void requestServerAction(std::string_view action, uint32_t Id);
    void requestDeviceAction(std::string_view action, const char* host, uint16_t port,
                             uint32_t deviceId, bool once);
    void requestDeviceAction(std::string_view action, uint32_t serverId, uint32_t deviceId,
                             bool once);

    // Sends one frame; a null object is an empty payload. An object that has no JSON form (a text
    // that is not UTF-8, a number that is none) is told as "cannot convert dictionary to JSON".
    // Without memory for the frame, without a loop, or after stop nothing is sent or said.
    void sendJSON(const boost::json::object* object, int32_t command);

    // Hands each complete frame at the front of the bytes to the data callback, in order. On true
    // dropSize is what those frames take up; what follows them is the beginning of another frame.
    // False for bytes that are no frames, told in words; dropSize is then untouched. What it has
    // left of a frame comes again in front of the bytes of the next call, and is not read again.
    [[nodiscard]] bool parseProtocolBuffer(const char* bytes, uint64_t size, uint64_t* dropSize);

    // What start makes the socket report to; an HXKQueueEventBlock, whose codes it turns into the
    // callbacks. Always true.
    bool handleEvent(const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
                     uint64_t size, uint64_t* dropSize, int32_t code);

private:
    struct FrameReading;

    void readAhead(const FrameHeader& header, std::string_view payload) noexcept;
    [[nodiscard]] std::unique_ptr<FrameReading> readingOf(const FrameHeader& header,
                                                          std::string_view payload) noexcept;
    [[nodiscard]] bool deliverFrame(const FrameHeader& header, std::string_view payload);
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> currentSocket() const noexcept;

    std::weak_ptr<HXKQueue> kq;  // not written after initWithKQueue

    std::unique_ptr<FrameReading> reading;  // I/O thread only

    mutable std::mutex lock;
    std::shared_ptr<HXKQueueEventProtocol> unix;      // guarded by lock
    std::shared_ptr<const OnConnected> _onConnected;  // guarded by lock
    std::shared_ptr<const OnData> _onData;            // guarded by lock
    std::shared_ptr<const OnError> _onError;          // guarded by lock
};
