// The contract between the event loop, its event sources and their owners: the protocol that every
// source fulfils, the block through which a source reports, and the codes it reports with.
//
// A source goes through: registered (a factory of HXKQueue made it), enabled (enableOnData has its
// block and filters are submitted), stop requested, stopped (its block is gone), released.
//
// The kernel's records are struct kevent. Every source fills all six fields itself: the ident is
// its descriptor (timers: their identifier), udata is the source's own address. udata is the
// routing key: the loop hands each delivered record to the registered source with that address.
#pragma once

#include <sys/event.h>

#include <cstdint>
#include <functional>
#include <memory>

class HXKQueueEventProtocol;

// What a source reports. An owner ignores codes it does not know.
enum : int32_t {
    // The stream is up: a pending connect has completed, or the source was connected when it was
    // enabled (then the block runs inside enableOnData, on the caller's thread).
    HXKQueueEventConnected = 0,
    // Streams: bytes have arrived; the block sees the whole receive buffer.
    // Timers: the period has elapsed; no bytes.
    // Listening servers: bytes is an HXKQueueAcceptedConnection.
    HXKQueueEventData = 1,
    // The stream has ended or failed, for reading or for writing. The block sees what is left in
    // the receive buffer. Raised again until the owner stops the source. Until then a stream that
    // failed for writing goes on to deliver what its peer sends, behind what the block keeps.
    HXKQueueEventTerminated = 2,
    // A pending connect has failed. Raised again until the owner stops the source.
    HXKQueueEventCannotConnect = 3,
};

// An owner's callback.
//
// source     the source that reports.
// bytes      what goes with the code, or null. Valid during the call only.
// size       the number of bytes.
// dropSize   null, or where a stream's owner says how many bytes from the front it has consumed.
//            Preset to size, so that a block that leaves it alone consumes everything; bytes that
//            are kept come again, in front of the new ones. More than size counts as size.
// code       one of the codes above.
// result     listening servers: true keeps the accepted connection, false has it closed. Ignored
//            by all others.
//
// What a block holds goes when the source is stopped, on the thread that stops it, with no lock of
// the library held.
//
// Runs on the I/O thread; HXKQueueEventConnected, and HXKQueueEventTerminated for want of memory
// to keep the block, also on the thread that enables the source. No lock of the library is held,
// so it may call every operation of the loop except stop. It must not throw.
using HXKQueueEventBlock =
    std::function<bool(const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
                       uint64_t size, uint64_t* dropSize, int32_t code)>;

// An event source. Owners use it through the loop's operations startObject, write and stopObject,
// which say what may be called from where; the loop alone calls kevent and stop.
class HXKQueueEventProtocol : public std::enable_shared_from_this<HXKQueueEventProtocol> {
public:
    HXKQueueEventProtocol() = default;
    HXKQueueEventProtocol(const HXKQueueEventProtocol&) = delete;
    HXKQueueEventProtocol& operator=(const HXKQueueEventProtocol&) = delete;
    virtual ~HXKQueueEventProtocol() = default;

    // Keeps block in place of an earlier one and submits the source's filters. Any thread, also
    // while kevent runs.
    virtual void enableOnData(HXKQueueEventBlock block) = 0;

    // Handles one record whose udata is this source. Valid during the call only; records of
    // filters that the source has not are ignored. I/O thread.
    virtual void kevent(const struct kevent* record) = 0;

    // Queues a copy of the bytes for sending; a count of 0 does nothing, and so does every write
    // to a source that never sends. Any thread, after enableOnData.
    virtual void write(const char* bytes, uint64_t size) = 0;

    // Removes the filters or closes the descriptors, and drops the block. Never overlaps kevent.
    // I/O thread, or the thread that stops the loop.
    virtual void stop() = 0;
};
