// What the sources that carry a byte stream have in common, as a part of each: the two buffers,
// their traffic with the kernel, and the owner's block. Internal to the library.
//
// The source names the descriptors and fills the changes; it knows what they mean.
//
// Threads    queue, submit and pendingBytes: any. keepBlock: the thread that enables the source.
//            report: that one and the I/O thread. The others: the I/O thread, forgetBlock also the
//            thread that stops the loop.
// Errors     a failed read or write is HXKQueueEventTerminated; so is a lack of memory for what
//            arrives, for what is to be sent, and for the block, which is told so itself.
#pragma once

#include <sys/event.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/byte_queue.h"
#include "kqueue/event_block_slot.h"
#include "platform/log.h"

class HXKQueue;

namespace hxkqueue {

// Whether the record is one of the descriptor's.
[[nodiscard]] inline bool isAbout(const struct kevent& record, int fd) noexcept {
    return record.ident == static_cast<uint64_t>(fd);
}

class ByteStream {
public:
    // What send does when there is nothing to write or no room: to write no bytes is a call that
    // returns 0, and that ends the stream.
    enum class ZeroBytes { AreNotWritten, AreWritten };

    // The stream is a part of source.
    ByteStream(HXKQueueEventProtocol& source, std::weak_ptr<HXKQueue> parent,
               std::shared_ptr<const LogHandle> logger) noexcept;

    // Keeps block in place of an earlier one. False without memory for it.
    [[nodiscard]] bool keepBlock(HXKQueueEventBlock block);
    void forgetBlock() noexcept;

    // Tells the owner a code that comes without bytes.
    void report(int32_t code) const;

    // Tells the owner a code with the receive buffer, and drops what it has consumed.
    void callEvent(int32_t code);

    // Hands a change to the loop, if that still exists.
    void submit(const struct kevent& change) const;

    // Queues a copy of the bytes and submits the arming of the write filter; nothing for a size
    // of 0. Without memory for the copy no bytes are queued any more, and with its next record the
    // stream ends.
    void queue(const char* bytes, uint64_t size, const struct kevent& arming);

    // Writes as much of the queue as the room allows. Submits the removal of the write filter
    // once the queue is empty.
    void send(int fd, int64_t room, const struct kevent& removal, ZeroBytes zeroBytes);

    // Reads count bytes, behind those that the owner has kept.
    void receive(int fd, int64_t count);

    // What is queued and not yet handed to the kernel.
    [[nodiscard]] uint64_t pendingBytes() const;

private:
    HXKQueueEventProtocol& source;
    const std::weak_ptr<HXKQueue> parent;
    const std::shared_ptr<const LogHandle> logger;
    ByteQueue rx;                         // I/O thread only
    mutable std::recursive_mutex txlock;  // taken before the loop's lock
    ByteQueue tx;                         // guarded by txlock
    // Guarded by txlock. Bytes are missing behind the last of tx, so that a peer could make no
    // sense of any that followed.
    bool txHasGap = false;
    EventBlockSlot eventBlock;
};

}  // namespace hxkqueue
