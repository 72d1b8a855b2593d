#include "kqueue/HXKQueueStreamSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/broken_pipe.h"
#include "platform/socket_address.h"

std::shared_ptr<HXKQueueStreamSocket> HXKQueueStreamSocket::initWithSocket(
    int sock, bool closeOnStop, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    preventBrokenPipeSignal(sock);
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
      logger(logger_),
      closeOnStop(closeOnStop_),
      isConnected(isConnected_),
      stream(*this, std::move(parent_), std::move(logger_)) {}

void HXKQueueStreamSocket::enableOnData(HXKQueueEventBlock block) {
    if (!stream.keepBlock(std::move(block))) return;
    if (isConnected)
        stream.report(HXKQueueEventConnected);
    else
        submitWriteEvent(EV_ADD | EV_ENABLE);
    submitReadEvent(EV_ADD | EV_ENABLE);
}

// A record of another descriptor was meant for an earlier source at this address.
void HXKQueueStreamSocket::kevent(const struct kevent* record) {
    if (!hxkqueue::isAbout(*record, sock)) return;
    if (record->filter == EVFILT_WRITE && !isConnected)
        finishConnecting(record);
    else if (record->filter == EVFILT_WRITE)
        sendQueued(record);
    else if (record->filter == EVFILT_READ && isConnected)
        stream.receive(sock, record->data);
}

void HXKQueueStreamSocket::write(const char* bytes, uint64_t size) {
    struct kevent arming;
    initWriteEvent(&arming, EV_ADD | EV_ENABLE);
    stream.queue(bytes, size, arming);
}

// sock keeps its old number: whoever asks later is told what it was.
void HXKQueueStreamSocket::stop() {
    logger->debug("<%p>: stop", static_cast<void*>(this));
    if (sock != -1 && closeOnStop) {
        shutdown(sock, SHUT_RDWR);
        close(sock);
    } else if (sock != -1) {
        submitReadEvent(EV_DELETE);
        submitWriteEvent(EV_DELETE);
    }
    stream.forgetBlock();
}

uint64_t HXKQueueStreamSocket::pendingBytes() const {
    return stream.pendingBytes();
}

// The removal cannot hit a filter that somebody registers under the same number after a stop,
// because the source's own block runs before that.
void HXKQueueStreamSocket::pauseReading() {
    submitReadEvent(EV_DELETE);
}

void HXKQueueStreamSocket::resumeReading() {
    submitReadEvent(EV_ADD | EV_ENABLE);
}

bool HXKQueueStreamSocket::connectTo(const struct sockaddr* address) {
    isConnected = false;
    preventBrokenPipeSignal(sock);
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

void HXKQueueStreamSocket::submitReadEvent(uint16_t flags) {
    struct kevent change;
    initReadEvent(&change, flags);
    stream.submit(change);
}

void HXKQueueStreamSocket::submitWriteEvent(uint16_t flags) {
    struct kevent change;
    initWriteEvent(&change, flags);
    stream.submit(change);
}

// After success the write filter stays armed: the next record flushes what was queued meanwhile,
// or removes the filter when nothing was.
void HXKQueueStreamSocket::finishConnecting(const struct kevent* record) {
    if ((record->flags & EV_EOF) != 0) {
        stream.report(HXKQueueEventCannotConnect);
        return;
    }
    isConnected = true;
    stream.report(HXKQueueEventConnected);
}

void HXKQueueStreamSocket::sendQueued(const struct kevent* record) {
    struct kevent removal;
    initWriteEvent(&removal, EV_DELETE);
    stream.send(sock, record->data, removal, hxkqueue::ByteStream::ZeroBytes::AreNotWritten);
}
