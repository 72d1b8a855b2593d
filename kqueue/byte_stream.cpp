#include "kqueue/byte_stream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "kqueue/HXKQueue.h"

namespace hxkqueue {

namespace {

// Calls again what a signal has interrupted before it has done anything.
template <typename Call>
ssize_t uninterrupted(Call call) {
    ssize_t result = -1;
    do
        result = call();
    while (result == -1 && errno == EINTR);
    return result;
}

// The kernel's counts are signed.
size_t atLeastZero(int64_t count) {
    return count > 0 ? static_cast<size_t>(count) : 0;
}

}  // namespace

ByteStream::ByteStream(HXKQueueEventProtocol& source_, std::weak_ptr<HXKQueue> parent_,
                       std::shared_ptr<const LogHandle> logger_) noexcept
    : source(source_), parent(std::move(parent_)), logger(std::move(logger_)) {}

bool ByteStream::keepBlock(HXKQueueEventBlock block) {
    try {
        eventBlock.store(std::move(block));
        return true;
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot keep event block", static_cast<void*>(&source));
        uint64_t drop = 0;
        if (block) block(source.shared_from_this(), nullptr, 0, &drop, HXKQueueEventTerminated);
        return false;
    }
}

void ByteStream::forgetBlock() noexcept {
    eventBlock.clear(parent);
}

void ByteStream::report(int32_t code) const {
    eventBlock.call(source.shared_from_this(), nullptr, 0, nullptr, code);
}

void ByteStream::callEvent(int32_t code) {
    uint64_t drop = rx.size();
    eventBlock.call(source.shared_from_this(), rx.data(), rx.size(), &drop, code);
    rx.removeFront(drop);
}

void ByteStream::submit(const struct kevent& change) const {
    if (const auto loop = parent.lock()) loop->submitChange(&change);
}

// The change is submitted under txlock, here and in send, so that the last one submitted fits the
// queue: between a look at an empty queue and the removal, another thread's bytes would otherwise
// lose their filter.
//
// Bytes that cannot be queued end the stream: its owner would wait for an answer that does not
// come. It may be inside its block, or hold its locks, so it hears of that on the I/O thread.
void ByteStream::queue(const char* bytes, uint64_t size, const struct kevent& arming) {
    if (size == 0) return;
    const std::lock_guard guard(txlock);
    try {
        if (!txHasGap) tx.append(bytes, size);
    } catch (const std::exception&) {  // bad_alloc, or length_error for an absurd size
        logger->error("<%p>: cannot queue bytes", static_cast<void*>(&source));
        txHasGap = true;
    }
    submit(arming);
}

void ByteStream::send(int fd, int64_t room, const struct kevent& removal, ZeroBytes zeroBytes) {
    bool failed = false;
    {
        const std::lock_guard guard(txlock);
        const size_t size = std::min(tx.size(), atLeastZero(room));
        if (size > 0 || zeroBytes == ZeroBytes::AreWritten) {
            const ssize_t written = uninterrupted([&] { return ::write(fd, tx.data(), size); });
            if (written > 0) tx.removeFront(static_cast<uint64_t>(written));
            failed = written <= 0;
        }
        if (tx.empty()) submit(removal);
        failed = failed || txHasGap;
    }
    if (failed) callEvent(HXKQueueEventTerminated);
}

// rx is not trimmed to what read returned: the kernel's count is exact, and a shorter read would
// leave zeros that the owner can see, rather than bytes that are silently missing.
void ByteStream::receive(int fd, int64_t count) {
    const size_t size = atLeastZero(count);
    char* space = nullptr;
    try {
        space = rx.appendSpace(size);
    } catch (const std::exception&) {
        logger->error("<%p>: cannot receive bytes", static_cast<void*>(&source));
        callEvent(HXKQueueEventTerminated);
        return;
    }
    const ssize_t received = uninterrupted([&] { return ::read(fd, space, size); });
    if (received > 0) {
        std::memset(space + received, 0, size - static_cast<size_t>(received));
        callEvent(HXKQueueEventData);
    } else {
        rx.removeBack(size);
        callEvent(HXKQueueEventTerminated);
    }
}

uint64_t ByteStream::pendingBytes() const {
    const std::lock_guard guard(txlock);
    return tx.size();
}

}  // namespace hxkqueue
