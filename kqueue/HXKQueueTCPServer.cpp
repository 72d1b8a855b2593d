#include "kqueue/HXKQueueTCPServer.h"

#include <unistd.h>

#include <new>
#include <utility>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "platform/broken_pipe.h"
#include "platform/socket_address.h"

std::shared_ptr<HXKQueueTCPServer> HXKQueueTCPServer::initWithSockaddr(
    const struct sockaddr* address, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    try {
        auto server =
            std::make_shared<HXKQueueTCPServer>(Private(), std::move(parent), std::move(logger));
        server->listener.sock = listenSocket(address);
        return server->listener.sock == -1 ? nullptr : server;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

HXKQueueTCPServer::HXKQueueTCPServer(Private /*unused*/, std::weak_ptr<HXKQueue> parent,
                                     std::shared_ptr<const LogHandle> logger) noexcept
    : listener(std::move(parent), std::move(logger)) {}

void HXKQueueTCPServer::enableOnData(HXKQueueEventBlock block) {
    listener.enable(this, std::move(block));
}

void HXKQueueTCPServer::kevent(const struct kevent* record) {
    if (record->filter != EVFILT_READ) return;
    HXKQueueAcceptedConnection connection;
    socklen_t length = sizeof connection.peerAddr;
    connection.sock =
        accept(listener.sock, reinterpret_cast<struct sockaddr*>(&connection.peerAddr), &length);
    if (connection.sock == -1) {
        listener.logger->error("<%p>: cannot accept inet connection", static_cast<void*>(this));
        return;
    }
    listener.offer(shared_from_this(), connection);
}

void HXKQueueTCPServer::stop() {
    listener.stop(this);
}

int HXKQueueTCPServer::listenSocket(const struct sockaddr* address) {
    const int sock = socket(address->sa_family, SOCK_STREAM, 0);
    if (sock == -1) return -1;
    preventBrokenPipeSignal(sock);
    const int32_t on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(sock, address, socketAddressLength(address)) == -1 ||
        listen(sock, hxkqueue::ListeningSocket::kBacklog) == -1) {
        close(sock);
        return -1;
    }
    return sock;
}
