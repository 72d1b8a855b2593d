#include "kqueue/HXKQueueStreamSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "kqueue/HXKQueue.h"
#include "kqueue/byte_buffer.h"
#include "platform/socket_address.h"

std::shared_ptr<HXKQueueStreamSocket> HXKQueueStreamSocket::initWithSocket(
    int sock, bool closeOnStop, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    try {
        return std::make_shared<HXKQueueStreamSocket>(Private(), sock, closeOnStop, true,
                                                      std::move(parent), std::move(logger));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

HXKQueueStreamSocket::HXKQueueStreamSocket(Private /*unused*/, int sock_, bool closeOnStop_,
                                           bool isConnected_, std::weak_ptr<HXKQueue> parent_,
                                           std::shared_ptr<const LogHandle> logger_) noexcept
    : sock(sock_),
      parent(std::move(parent_)),
      logger(std::move(logger_)),
      closeOnStop(closeOnStop_),
      isConnected(isConnected_) {}

void HXKQueueStreamSocket::enableOnData(HXKQueueEventBlock block) {
    try {
        eventBlock.store(std::move(block));
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot keep event block", static_cast<void*>(this));
        uint64_t drop = 0;
        block(shared_from_this(), nullptr, 0, &drop, HXKQueueEventTerminated);
        return;
    }
    struct kevent change;
    if (isConnected) {
        eventBlock.call(shared_from_this(), nullptr, 0, nullptr, HXKQueueEventConnected);
    } else {
        initWriteEvent(&change, EV_ADD | EV_ENABLE);
        submit(change);
    }
    initReadEvent(&change, EV_ADD | EV_ENABLE);
    submit(change);
}

void HXKQueueStreamSocket::kevent(const struct kevent* record) {
    if (record->filter == EVFILT_WRITE && !isConnected)
        finishConnecting(record);
    else if (record->filter == EVFILT_WRITE)
        sendQueued(record);
    else if (record->filter == EVFILT_READ && isConnected)
        receive(record);
}

void HXKQueueStreamSocket::write(const char* bytes, uint64_t size) {
    if (size == 0) return;
    const std::lock_guard guard(txlock);
    try {
        tx.insert(tx.end(), bytes, bytes + size);
    } catch (const std::exception&) {  // bad_alloc, or length_error for an absurd size
        logger->error("<%p>: cannot queue bytes", static_cast<void*>(this));
        return;
    }
    struct kevent change;
    initWriteEvent(&change, EV_ADD | EV_ENABLE);
    submit(change);
}

// sock keeps its old number: whoever asks later is told what it was.
void HXKQueueStreamSocket::stop() {
    logger->debug("<%p>: stop", static_cast<void*>(this));
    if (sock != -1 && closeOnStop) {
        shutdown(sock, SHUT_RDWR);
        close(sock);
    } else if (sock != -1) {
        struct kevent change;
        initReadEvent(&change, EV_DELETE);
        submit(change);
        initWriteEvent(&change, EV_DELETE);
        submit(change);
    }
    eventBlock.clear();
}

bool HXKQueueStreamSocket::connectTo(const struct sockaddr* address) {
    isConnected = false;
    const int status = fcntl(sock, F_GETFL);
    if (status == -1) return false;
    if (fcntl(sock, F_SETFL, status | O_NONBLOCK) == -1) return false;
    const int result = connect(sock, address, socketAddressLength(address));
    const int connectError = errno;
    // Blocking from here on: every read and write is sized by what the kernel has reported.
    fcntl(sock, F_SETFL, status & ~O_NONBLOCK);
    isConnected = result == 0;
    return isConnected || connectError == EINPROGRESS;
}

void HXKQueueStreamSocket::initReadEvent(struct kevent* event, uint16_t flags) {
    EV_SET(event, sock, EVFILT_READ, flags, 0, 0, this);
}

void HXKQueueStreamSocket::initWriteEvent(struct kevent* event, uint16_t flags) {
    EV_SET(event, sock, EVFILT_WRITE, flags, 0, 0, this);
}

void HXKQueueStreamSocket::submit(const struct kevent& change) {
    if (const auto loop = parent.lock()) loop->submitChange(&change);
}

// After success the write filter stays armed: the next record flushes what was queued meanwhile,
// or removes the filter when nothing was.
void HXKQueueStreamSocket::finishConnecting(const struct kevent* record) {
    if ((record->flags & EV_EOF) != 0) {
        eventBlock.call(shared_from_this(), nullptr, 0, nullptr, HXKQueueEventCannotConnect);
        return;
    }
    isConnected = true;
    eventBlock.call(shared_from_this(), nullptr, 0, nullptr, HXKQueueEventConnected);
}

void HXKQueueStreamSocket::sendQueued(const struct kevent* record) {
    bool failed = false;
    {
        const std::lock_guard guard(txlock);
        const size_t room = record->data > 0 ? static_cast<size_t>(record->data) : 0;
        const size_t size = std::min(tx.size(), room);
        if (size > 0) {
            const ssize_t written = ::write(sock, tx.data(), size);
            if (written > 0) hxkqueue::removeFront(tx, static_cast<size_t>(written));
            failed = written <= 0;
        }
        removeWriteFilterOnceDrained();
    }
    if (failed) callEvent(HXKQueueEventTerminated);
}

// Still under txlock: between a look at an empty queue and the removal, another thread's write
// would have its filter removed with bytes in the queue.
void HXKQueueStreamSocket::removeWriteFilterOnceDrained() {
    if (!tx.empty()) return;
    struct kevent change;
    initWriteEvent(&change, EV_DELETE);
    submit(change);
}

// rx is not trimmed to what read returned: the kernel's count is exact, and a shorter read would
// leave zeros that the owner can see, rather than bytes that are silently missing.
void HXKQueueStreamSocket::receive(const struct kevent* record) {
    const size_t before = rx.size();
    const size_t size = record->data > 0 ? static_cast<size_t>(record->data) : 0;
    ssize_t received = -1;
    try {
        rx.resize(before + size);
        received = ::read(sock, rx.data() + before, size);
    } catch (const std::exception&) {
        logger->error("<%p>: cannot receive bytes", static_cast<void*>(this));
    }
    if (received <= 0) {
        rx.resize(before);
        callEvent(HXKQueueEventTerminated);
        return;
    }
    callEvent(HXKQueueEventData);
}

void HXKQueueStreamSocket::callEvent(int32_t code) {
    uint64_t drop = rx.size();
    eventBlock.call(shared_from_this(), rx.data(), rx.size(), &drop, code);
    hxkqueue::removeFront(rx, drop);
}
