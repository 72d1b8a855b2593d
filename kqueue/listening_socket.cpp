#include "kqueue/listening_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueAcceptedConnection.h"

namespace hxkqueue {

ListeningSocket::ListeningSocket(std::weak_ptr<HXKQueue> parent_,
                                 std::shared_ptr<const LogHandle> logger_) noexcept
    : parent(std::move(parent_)), logger(std::move(logger_)) {}

void ListeningSocket::enable(HXKQueueEventProtocol* server, HXKQueueEventBlock block) {
    try {
        eventBlock.store(std::move(block));
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot keep event block", static_cast<void*>(server));
        return;
    }
    submitReadEvent(server, EV_ADD | EV_ENABLE);
}

void ListeningSocket::offer(const std::shared_ptr<HXKQueueEventProtocol>& server,
                            const HXKQueueAcceptedConnection& connection) const {
    const bool kept = eventBlock.call(server, reinterpret_cast<const char*>(&connection),
                                      sizeof connection, nullptr, HXKQueueEventData);
    if (!kept) hangUp(connection.sock);
}

// The removal is queued before the descriptor is closed, so that it cannot hit a filter that
// somebody registers under the same number afterwards.
void ListeningSocket::stop(HXKQueueEventProtocol* server) {
    logger->debug("<%p>: stop", static_cast<void*>(server));
    submitReadEvent(server, EV_DELETE);
    close(sock);
    eventBlock.clear(parent);
}

void ListeningSocket::hangUp(int connection) noexcept {
    shutdown(connection, SHUT_RDWR);
    close(connection);
}

void ListeningSocket::submitReadEvent(HXKQueueEventProtocol* server, uint16_t flags) const {
    struct kevent change;
    EV_SET(&change, sock, EVFILT_READ, flags, 0, 0, server);
    if (const auto loop = parent.lock()) loop->submitChange(&change);
}

}  // namespace hxkqueue
