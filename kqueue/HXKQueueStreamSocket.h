// A connected byte stream as an event source: collects what arrives until its owner consumes it,
// and queues what is sent until the kernel takes it. Made by HXKQueue::createStreamSocket; the
// clients derive from it and add the connecting.
//
// Codes      Connected: inside enableOnData when already connected, else when the pending connect
//            completes. CannotConnect: when that fails. Data, Terminated: with the receive
//            buffer.
// Threads    enableOnData and write: any. kevent: the I/O thread. stop: the I/O thread, or the
//            thread that stops the loop; never while kevent runs.
// Ownership  the loop keeps the source until its stop has run; the source keeps the loop weakly.
//            The descriptor belongs to the source with closeOnStop and to the caller without. On
//            macOS its open file raises no SIGPIPE from then on, for all who share it.
// Errors     init...: null. A failed read or write is Terminated; so is a lack of memory for the
//            block (said to that block, inside enableOnData), for the bytes that arrive, or for
//            those to be sent, of which the log tells more.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/byte_stream.h"
#include "platform/log.h"

class HXKQueue;

class HXKQueueStreamSocket : public HXKQueueEventProtocol {
protected:
    struct Private {
        explicit Private() = default;
    };

public:
    // Around a descriptor that is connected already.
    [[nodiscard]] static std::shared_ptr<HXKQueueStreamSocket> initWithSocket(
        int sock, bool closeOnStop, std::weak_ptr<HXKQueue> parent,
        std::shared_ptr<const LogHandle> logger);

    HXKQueueStreamSocket(Private /*only the init operations make one*/, int sock, bool closeOnStop,
                         bool isConnected, std::weak_ptr<HXKQueue> parent,
                         std::shared_ptr<const LogHandle> logger) noexcept;

    // Registers for reading, and for writing while a connect is pending.
    void enableOnData(HXKQueueEventBlock block) override;
    void kevent(const struct kevent* record) override;

    // Arms the write filter with every call; the I/O thread removes it once the queue is empty.
    void write(const char* bytes, uint64_t size) override;

    // Removes both filters, or, with closeOnStop, shuts the socket down and closes it.
    void stop() override;

    // The bytes that were queued and that the kernel has not taken yet. A stop loses them. Any
    // thread.
    [[nodiscard]] uint64_t pendingBytes() const;

    // Until resumeReading nothing more is read: the peer's bytes, and its end, wait in the kernel.
    // From the source's own block only, with any code but HXKQueueEventConnected.
    void pauseReading();

    // Takes effect within 5 ms. Nothing happens once the source is asked to stop. Any thread.
    void resumeReading();

protected:
    // Starts to connect sock, which is left in blocking mode. True when connected or connecting.
    // On false the descriptor stays open; stop closes it.
    bool connectTo(const struct sockaddr* address);

    int32_t sock;  // -1: none

private:
    void initReadEvent(struct kevent* event, uint16_t flags);
    void initWriteEvent(struct kevent* event, uint16_t flags);
    void submitReadEvent(uint16_t flags);
    void submitWriteEvent(uint16_t flags);

    void finishConnecting(const struct kevent* record);
    void sendQueued(const struct kevent* record);

    std::shared_ptr<const LogHandle> logger;
    const bool closeOnStop;
    std::atomic<bool> isConnected;  // written before enableOnData, then by the I/O thread only
    hxkqueue::ByteStream stream;
};
