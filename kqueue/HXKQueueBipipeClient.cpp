#include "kqueue/HXKQueueBipipeClient.h"

#include <unistd.h>

#include <new>
#include <utility>

#include "platform/broken_pipe.h"

std::shared_ptr<HXKQueueBipipeClient> HXKQueueBipipeClient::initWithIndesc(
    int indesc, int outdesc, bool closeOnStop, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    try {
        return std::make_shared<HXKQueueBipipeClient>(Private(), indesc, outdesc, closeOnStop,
                                                      std::move(parent), std::move(logger));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

HXKQueueBipipeClient::HXKQueueBipipeClient(Private /*unused*/, int indesc, int outdesc,
                                           bool closeOnStop_, std::weak_ptr<HXKQueue> parent,
                                           std::shared_ptr<const LogHandle> logger_) noexcept
    : logger(logger_),
      infd(indesc),
      outfd(outdesc),
      closeOnStop(closeOnStop_),
      stream(*this, std::move(parent), std::move(logger_)) {
    preventBrokenPipeSignal(outfd);
}

void HXKQueueBipipeClient::enableOnData(HXKQueueEventBlock block) {
    if (!stream.keepBlock(std::move(block))) return;
    stream.report(HXKQueueEventConnected);
    submitReadEvent(EV_ADD | EV_ENABLE);
}

// A record of another descriptor was meant for an earlier source at this address.
void HXKQueueBipipeClient::kevent(const struct kevent* record) {
    if (record->filter == EVFILT_WRITE && hxkqueue::isAbout(*record, outfd))
        sendQueued(record);
    else if (record->filter == EVFILT_READ && hxkqueue::isAbout(*record, infd))
        stream.receive(infd, record->data);
}

void HXKQueueBipipeClient::write(const char* bytes, uint64_t size) {
    struct kevent arming;
    initWriteEvent(&arming, EV_ADD | EV_ENABLE);
    stream.queue(bytes, size, arming);
}

void HXKQueueBipipeClient::stop() {
    logger->debug("<%p>: stop", static_cast<void*>(this));
    if (closeOnStop) {
        close(infd);
        close(outfd);
    } else {
        submitReadEvent(EV_DELETE);
        struct kevent removal;
        initWriteEvent(&removal, EV_DELETE);
        stream.submit(removal);
    }
    stream.forgetBlock();
}

uint64_t HXKQueueBipipeClient::pendingBytes() const {
    return stream.pendingBytes();
}

// The removal cannot hit a filter that somebody registers under the same number after a stop,
// because the source's own block runs before that.
void HXKQueueBipipeClient::pauseReading() {
    submitReadEvent(EV_DELETE);
}

void HXKQueueBipipeClient::resumeReading() {
    submitReadEvent(EV_ADD | EV_ENABLE);
}

void HXKQueueBipipeClient::initReadEvent(struct kevent* event, uint16_t flags) {
    EV_SET(event, infd, EVFILT_READ, flags, 0, 0, this);
}

void HXKQueueBipipeClient::initWriteEvent(struct kevent* event, uint16_t flags) {
    EV_SET(event, outfd, EVFILT_WRITE, flags, 0, 0, this);
}

void HXKQueueBipipeClient::submitReadEvent(uint16_t flags) {
    struct kevent change;
    initReadEvent(&change, flags);
    stream.submit(change);
}

void HXKQueueBipipeClient::sendQueued(const struct kevent* record) {
    struct kevent removal;
    initWriteEvent(&removal, EV_DELETE);
    stream.send(outfd, record->data, removal, hxkqueue::ByteStream::ZeroBytes::AreWritten);
}
