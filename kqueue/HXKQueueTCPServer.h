// A socket that listens on an Internet address, as an event source: raises HXKQueueEventData
// with an HXKQueueAcceptedConnection for each connection. Made by HXKQueue::createTCPServer.
//
// Threads    enableOnData: any. kevent: the I/O thread. stop: the I/O thread, or the thread that
//            stops the loop; never while kevent runs.
// Ownership  the loop keeps the server until its stop has run; the server keeps the loop weakly
//            and owns the listening descriptor. An accepted connection is the owner's once its
//            block has returned true.
// Errors     initWithSockaddr: null. A failed accept is logged and tried again at the next
//            record.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/listening_socket.h"

class HXKQueueTCPServer final : public HXKQueueEventProtocol {
    struct Private {
        explicit Private() = default;
    };

public:
    [[nodiscard]] static std::shared_ptr<HXKQueueTCPServer> initWithSockaddr(
        const struct sockaddr* address, std::weak_ptr<HXKQueue> parent,
        std::shared_ptr<const LogHandle> logger);

    HXKQueueTCPServer(Private /*only initWithSockaddr makes one*/, std::weak_ptr<HXKQueue> parent,
                      std::shared_ptr<const LogHandle> logger) noexcept;

    void enableOnData(HXKQueueEventBlock block) override;

    // Accepts one connection; further ones come with further records.
    void kevent(const struct kevent* record) override;

    // Servers never send.
    void write(const char* /*bytes*/, uint64_t /*size*/) override {}

    // Removes the filter and closes the listening descriptor.
    void stop() override;

private:
    // The listening descriptor, in blocking mode, or -1.
    static int listenSocket(const struct sockaddr* address);

    hxkqueue::ListeningSocket listener;
};
