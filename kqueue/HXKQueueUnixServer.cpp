#include "kqueue/HXKQueueUnixServer.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "platform/broken_pipe.h"
#include "platform/socket_address.h"

std::shared_ptr<HXKQueueUnixServer> HXKQueueUnixServer::initWithPath(
    const char* path, uint16_t perm, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    try {
        auto server =
            std::make_shared<HXKQueueUnixServer>(Private(), std::move(parent), std::move(logger));
        server->listener.sock = listenSocket(path, perm);
        return server->listener.sock == -1 ? nullptr : server;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

HXKQueueUnixServer::HXKQueueUnixServer(Private /*unused*/, std::weak_ptr<HXKQueue> parent,
                                       std::shared_ptr<const LogHandle> logger) noexcept
    : listener(std::move(parent), std::move(logger)) {}

void HXKQueueUnixServer::enableOnData(HXKQueueEventBlock block) {
    listener.enable(this, std::move(block));
}

void HXKQueueUnixServer::kevent(const struct kevent* record) {
    if (record->filter != EVFILT_READ) return;
    HXKQueueAcceptedConnection connection;
    connection.sock = accept(listener.sock, nullptr, nullptr);
    if (connection.sock == -1) {
        listener.logger->error("<%p>: cannot accept unix connection", static_cast<void*>(this));
        return;
    }
    if (peerCredentials(connection.sock, connection.peer))
        listener.offer(shared_from_this(), connection);
    else
        hxkqueue::ListeningSocket::hangUp(connection.sock);
}

void HXKQueueUnixServer::stop() {
    listener.stop(this);
}

int HXKQueueUnixServer::listenSocket(const char* path, uint16_t perm) {
    struct sockaddr_un address;
    if (!makeUnixAddress(path, address)) return -1;
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1) return -1;
    preventBrokenPipeSignal(sock);
    unlink(path);
    if (bind(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == -1) {
        close(sock);
        return -1;
    }
    chmod(path, perm);
    if (listen(sock, hxkqueue::ListeningSocket::kBacklog) == -1) {
        close(sock);
        return -1;
    }
    return sock;
}
