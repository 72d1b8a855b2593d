// A byte stream over two descriptors, one to read from and one to write to, as an event source:
// the ends of two pipes, standard input and output, or one descriptor twice. Made by
// HXKQueue::createBipipeClient.
//
// Codes      Connected: inside enableOnData, always. Data, Terminated: with the receive buffer.
//            Never CannotConnect. A write record that finds nothing queued, or no room, is
//            answered with a write of no bytes, and so with Terminated; the loop itself raises
//            none, because the filter is removed with the last byte.
// Threads    enableOnData and write: any. kevent: the I/O thread. stop: the I/O thread, or the
//            thread that stops the loop; never while kevent runs.
// Ownership  the loop keeps the source until its stop has run; the source keeps the loop weakly.
//            The descriptors belong to the source with closeOnStop and to the caller without.
//            With closeOnStop, one number for both is closed twice, and by the second time it may
//            mean another thread's descriptor: hand in a dup(2) instead. On macOS the open file
//            that is written to raises no SIGPIPE from then on, for all who share it.
// Errors     as of HXKQueueStreamSocket. A filter that the kernel refuses to register arrives as
//            an ordinary record, once: what the read or write then finds is what is reported.
//
// Descriptors  any that are in blocking mode:
//   pipes, FIFOs   The end of the input is Terminated once every writer is gone. Writing goes on
//                  in pieces of PIPE_BUF bytes or more. A reader that went away is Terminated.
//   sockets        As HXKQueueStreamSocket, but closed without a shutdown.
//   terminals      The end-of-file character is Terminated, once; a hang-up, until the source is
//                  stopped. A terminal that edits lines announces all the complete ones and gives
//                  one per read, and zeros stand for the rest: turn that off (ICANON) where lines
//                  may wait. On Linux writing takes one byte per record.
//   regular files  All that is left of the file is read in one piece. Then it is silent, without
//                  Terminated: compare lseek(2) with fstat(2) to know. Bytes that somebody appends
//                  are Data; Linux notices them within 50 ms. Writing always has room, but the I/O
//                  thread waits for the disk.
//   devices        Those with readiness of their own, as any other. /dev/null is at its end at
//                  once, and takes everything; on Linux /dev/zero gives one byte per record.
//   directories    Refused: Terminated, once.
//   block devices  Refused: do not use them.
#pragma once

#include <cstdint>
#include <memory>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/byte_stream.h"
#include "platform/log.h"

class HXKQueue;

class HXKQueueBipipeClient final : public HXKQueueEventProtocol {
    struct Private {
        explicit Private() = default;
    };

public:
    // Null when memory is short.
    [[nodiscard]] static std::shared_ptr<HXKQueueBipipeClient> initWithIndesc(
        int indesc, int outdesc, bool closeOnStop, std::weak_ptr<HXKQueue> parent,
        std::shared_ptr<const LogHandle> logger);

    HXKQueueBipipeClient(Private /*only initWithIndesc makes one*/, int indesc, int outdesc,
                         bool closeOnStop, std::weak_ptr<HXKQueue> parent,
                         std::shared_ptr<const LogHandle> logger) noexcept;

    // Registers for reading.
    void enableOnData(HXKQueueEventBlock block) override;
    void kevent(const struct kevent* record) override;

    // Arms the write filter with every call; the I/O thread removes it once the queue is empty.
    void write(const char* bytes, uint64_t size) override;

    // Removes both filters, or, with closeOnStop, closes both descriptors.
    void stop() override;

    // These three as HXKQueueStreamSocket's.
    [[nodiscard]] uint64_t pendingBytes() const;
    void pauseReading();
    void resumeReading();

private:
    void initReadEvent(struct kevent* event, uint16_t flags);
    void initWriteEvent(struct kevent* event, uint16_t flags);
    void submitReadEvent(uint16_t flags);
    void sendQueued(const struct kevent* record);

    std::shared_ptr<const LogHandle> logger;
    const int32_t infd;
    const int32_t outfd;
    const bool closeOnStop;
    hxkqueue::ByteStream stream;
};
