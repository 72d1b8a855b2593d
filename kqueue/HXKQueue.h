// The event loop: a kernel event queue, the one thread that waits on it, and the event sources
// that it drives.
//
// No thread but the I/O thread touches the kernel's queue. What other threads ask for, changes and
// stops, is queued under `lock` and taken up at the start of the I/O thread's next iteration. It
// waits at most 5 ms at a time and nothing wakes it, so that is the latency of every request.
//
//     auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
//     loop->start();
//     auto client = loop->createUnixClient("/run/example.sock");
//     loop->startObject(client, onEvent);
//     loop->write(client, "hello", 5);
//     ...
//     loop->stopObject(client);
//     loop->stop();
//
// Threads    any, for every operation, unless it says otherwise.
// Ownership  the loop keeps a source from its factory until its stop has run; sources keep the
//            loop weakly. The I/O thread keeps the loop while it runs. stop closes `kq`; merely
//            dropping the loop does not.
// Errors     initWithSubsystem and the factories: null, and a line on the log, at error level, of
//            the subsystem's handle with the category "kqueue". What has no result only logs. A
//            failing wait, and a change for a source that is not registered, are dropped without
//            a word. Nothing throws.
#pragma once

#include <sys/event.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kqueue/HXKQueueEvent.h"
#include "platform/log.h"

class HXKQueueBipipeClient;
class HXKQueueStreamSocket;
class HXKQueueTCPClient;
class HXKQueueTCPServer;
class HXKQueueTimer;
class HXKQueueUnixClient;
class HXKQueueUnixServer;
class ThreadObject;
namespace hxkqueue {
class TimerIndex;
}

class HXKQueue final : public std::enable_shared_from_this<HXKQueue> {
    struct Private {
        explicit Private() = default;
    };

public:
    // subsystem names the program to the log, in reverse-DNS form. Null on failure.
    [[nodiscard]] static std::shared_ptr<HXKQueue> initWithSubsystem(const char* subsystem);

    explicit HXKQueue(Private /*only initWithSubsystem makes one*/) noexcept;
    HXKQueue(const HXKQueue&) = delete;
    HXKQueue& operator=(const HXKQueue&) = delete;
    ~HXKQueue();

    // Starts the I/O thread. Once.
    void start();

    // Ends the I/O thread, stops every source that is left and closes `kq`. Once, after start,
    // and never on the I/O thread (a source's block included): it waits for that thread, asking
    // once a second, so it usually takes about one second. On a loop that was never started it
    // does not return.
    void stop();

    // Each factory registers the source that it returns; it stays silent until startObject. Null on
    // failure; descriptors that were given stay the caller's then, whatever closeOnStop says.

    // Wraps a connected stream socket. With closeOnStop the source owns the descriptor and closes
    // it when it is stopped; without, it stays the caller's, who closes it after that.
    [[nodiscard]] std::shared_ptr<HXKQueueStreamSocket> createStreamSocket(int sock,
                                                                           bool closeOnStop);

    // Connected or connecting. The path is at most 103 bytes long.
    [[nodiscard]] std::shared_ptr<HXKQueueUnixClient> createUnixClient(const char* path);

    // Connected or connecting. The address is an Internet address, with its own length where the
    // system's addresses have one.
    [[nodiscard]] std::shared_ptr<HXKQueueTCPClient> createTCPClient(
        const struct sockaddr* address);

    // Listening, with SO_REUSEPORT and SO_REUSEADDR. Connections wait in the backlog of 128 until
    // startObject.
    [[nodiscard]] std::shared_ptr<HXKQueueTCPServer> createTCPServer(
        const struct sockaddr* address);

    // Listening. Whatever unlink can remove at the path gives way to the socket file, which gets
    // exactly the mode perm and is left behind when the server stops.
    [[nodiscard]] std::shared_ptr<HXKQueueUnixServer> createUnixServer(const char* path,
                                                                       uint16_t perm);

    // A stream that reads from descriptors[0] and writes to descriptors[1], in the order in which
    // pipe(2) fills its array. With closeOnStop the source owns both and closes them when it is
    // stopped; without, they stay the caller's.
    [[nodiscard]] std::shared_ptr<HXKQueueBipipeClient> createBipipeClient(const int descriptors[2],
                                                                           bool closeOnStop);

    // Fires every ms milliseconds, or once, from startObject on. Of ms the low 32 bits count, as
    // a signed number: 2^31 and more mean a negative period, which is treated as 0.
    [[nodiscard]] std::shared_ptr<HXKQueueTimer> createTimer(uint64_t ms, bool oneShot);

    // Hands the source its owner's block and arms it.
    void startObject(const std::shared_ptr<HXKQueueEventProtocol>& object,
                     HXKQueueEventBlock onEvent);

    // Queues a copy of the bytes. True, whatever becomes of them: an owner learns of a failure to
    // send, and of a lack of memory to queue them, by HXKQueueEventTerminated. After startObject.
    bool write(const std::shared_ptr<HXKQueueEventProtocol>& object, const char* buffer,
               uint64_t size);

    // Asks for the source to be stopped. No record reaches it once the I/O thread has begun its
    // next iteration, in which it is stopped and released. Nothing happens for a source that is
    // not registered, or was asked for before.
    void stopObject(const std::shared_ptr<HXKQueueEventProtocol>& object);

    // For factories: makes object one of the loop's sources. Without memory for that, which is
    // logged, object stays what it is, and no change of its is taken.
    void addActiveObject(const std::shared_ptr<HXKQueueEventProtocol>& object);

    // For sources: queues a copy of the change for the I/O thread's next wait. Only removals are
    // taken from a source that is not registered, or that is stopped before that wait. `lock` may
    // be held.
    void submitChange(const struct kevent* change);

    // For sources, in stop: lets the block go when `lock`, which stop runs under, is released, so
    // that what the block holds may call any operation as it goes. Without memory to wait for
    // that, it goes at once.
    void dropUnlocked(std::shared_ptr<const HXKQueueEventBlock> block) noexcept;

    // For factories: the debug line of a new Internet endpoint.
    void logInet(const char* kind, const struct sockaddr* address, const void* object) const;

private:
    using SourceMap = std::unordered_map<uint64_t, std::shared_ptr<HXKQueueEventProtocol>>;
    struct IOThreadState;

    bool initialise(const char* subsystem);

    // False when the object is not registered.
    [[nodiscard]] bool tryAddActiveObject(const std::shared_ptr<HXKQueueEventProtocol>& object);
    void ioThreadRoutine(void* ignored);
    bool prepareIteration(IOThreadState& io);
    void renewSnapshotUnlocked(SourceMap& snapshot);
    static void dispatch(const IOThreadState& io, int count);
    bool stopRemaining();
    void releaseStoppedUnlocked();
    void dropAdditionsOfStoppedUnlocked();

    // The timer registry. An identifier names a timer to the kernel, so no two of the loop's have
    // the same; one that is freed is handed out again. On null, ident is untouched.
    std::shared_ptr<HXKQueueTimer> addTimer(uint64_t ms, int32_t* ident, bool oneShot);
    void removeTimer(const std::shared_ptr<HXKQueueEventProtocol>& object);
    [[nodiscard]] bool isHereTimerIdent(int32_t ident) const;  // the caller holds timersLock

    int32_t kq = -1;
    std::shared_ptr<const LogHandle> logger;

    // Lock order: a source's txlock, lock, timersLock. lock is recursive because the I/O thread
    // holds it while sources' stop calls submitChange.
    std::unique_ptr<std::recursive_mutex> lock;
    std::vector<struct kevent> changeList;                                // guarded by lock
    std::unordered_set<std::shared_ptr<HXKQueueEventProtocol>> stopList;  // guarded by lock
    SourceMap activeList;                                                 // guarded by lock
    // The keys whose entries the I/O thread has not seen since they came or went.
    std::vector<uint64_t> activeListChanged;                               // guarded by lock
    std::vector<std::shared_ptr<const HXKQueueEventBlock>> stoppedBlocks;  // guarded by lock

    std::unique_ptr<ThreadObject> ioThread;

    // Entry i of one list belongs to entry i of the other.
    std::unique_ptr<std::recursive_mutex> timersLock;
    std::unique_ptr<std::list<int32_t>> timerIdents;                          // guarded by it
    std::unique_ptr<std::list<std::shared_ptr<HXKQueueTimer>>> timerObjects;  // guarded by it
    std::unique_ptr<hxkqueue::TimerIndex> timerIndex;                         // guarded by it
};
