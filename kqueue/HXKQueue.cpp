#include "kqueue/HXKQueue.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cassert>
#include <new>
#include <optional>
#include <utility>

#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPClient.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueTimer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "kqueue/timer_index.h"
#include "platform/thread.h"

namespace {

constexpr size_t kEventRoom = 1000;
constexpr size_t kChangeCapacity = 100;
constexpr size_t kStopCapacity = 100;
constexpr struct timespec kWait = {.tv_sec = 0, .tv_nsec = 5'000'000};

// The routing key: what stands in the udata of the source's records.
uint64_t keyOf(const void* source) {
    return reinterpret_cast<uintptr_t>(source);
}

// False, with message in the log, when the step runs out of memory.
template <typename Step>
bool attempt(const LogHandle& logger, const char* message, Step step) {
    try {
        step();
        return true;
    } catch (const std::bad_alloc&) {
        logger.error("%s", message);
        return false;
    }
}

}  // namespace

// What the I/O thread keeps from one iteration to the next.
struct HXKQueue::IOThreadState {
    std::vector<struct kevent> events;
    std::vector<struct kevent> changes;  // trades places with changeList
    SourceMap snapshot;  // routes records; keeps a stopped source until the walk ends
    std::vector<std::shared_ptr<const HXKQueueEventBlock>> stoppedBlocks;  // trades likewise
};

std::shared_ptr<HXKQueue> HXKQueue::initWithSubsystem(const char* subsystem) {
    std::shared_ptr<HXKQueue> loop;
    try {
        loop = std::make_shared<HXKQueue>(Private());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return loop->initialise(subsystem) ? loop : nullptr;
}

HXKQueue::HXKQueue(Private /*unused*/) noexcept {}

HXKQueue::~HXKQueue() = default;

// Each step makes one object, so that a failure says which. The containers get the room that an
// ordinary program needs, for the same reason and to spare it from growing them.
bool HXKQueue::initialise(const char* subsystem) {
    logger = logCreate(subsystem, "kqueue");
    const auto make = [this](const char* message, auto step) {
        return attempt(*logger, message, step);
    };
    const bool made =
        make("cannot initialize timer lock",
             [this] { timersLock = std::make_unique<std::recursive_mutex>(); }) &&
        make("cannot initialize timer id dict",
             [this] { timerIdents = std::make_unique<std::list<int32_t>>(); }) &&
        make("cannot initialize timer obj dict",
             [this] {
                 timerObjects = std::make_unique<std::list<std::shared_ptr<HXKQueueTimer>>>();
                 timerIndex = std::make_unique<hxkqueue::TimerIndex>();
             }) &&
        make("cannot initialize lock",
             [this] { lock = std::make_unique<std::recursive_mutex>(); }) &&
        make("cannot initialize change list", [this] { changeList.reserve(kChangeCapacity); }) &&
        make("cannot initialize stop list",
             [this] {
                 stopList.reserve(kStopCapacity);
                 stoppedBlocks.reserve(kStopCapacity);
             }) &&
        make("cannot initialize active list", [this] {
            activeList.reserve(kStopCapacity);
            activeListChanged.reserve(kStopCapacity);
        });
    if (!made) return false;

    kq = ::kqueue();
    if (kq == -1) {
        logger->error("cannot initialize kqueue");
        return false;
    }
    // Weakly, or a loop that is never started could never go. Once it runs, the routine keeps it.
    const bool threadMade = make("cannot initialize io thread", [this] {
        ioThread = ThreadObject::create([self = weak_from_this()] {
            if (const auto loop = self.lock()) loop->ioThreadRoutine(nullptr);
        });
        if (!ioThread) throw std::bad_alloc();
    });
    if (!threadMade) {
        close(kq);
        return false;
    }
    logger->debug("kqueue is initialized");
    return true;
}

void HXKQueue::start() {
    ioThread->start();
    logger->debug("kqueue io thread is started");
}

void HXKQueue::stop() {
    ioThread->cancel();
    while (!ioThread->isFinished())
        sleep(1);
    while (stopRemaining()) {
        // What the blocks held may have made, or asked to stop, other sources.
    }
    close(kq);
}

// False when there was nothing to stop, and no block to go. These go after the lock is released.
bool HXKQueue::stopRemaining() {
    std::vector<std::shared_ptr<const HXKQueueEventBlock>> going;
    const std::lock_guard guard(*lock);
    const bool found = !stopList.empty() || !activeList.empty();
    releaseStoppedUnlocked();
    while (!activeList.empty())
        activeList.extract(activeList.begin()).mapped()->stop();
    going.swap(stoppedBlocks);
    return found || !going.empty();
}

std::shared_ptr<HXKQueueStreamSocket> HXKQueue::createStreamSocket(int sock, bool closeOnStop) {
    auto stream = HXKQueueStreamSocket::initWithSocket(sock, closeOnStop, weak_from_this(), logger);
    if (!stream || !tryAddActiveObject(stream)) {
        logger->error("cannot initialize stream socket object");
        return nullptr;
    }
    logger->debug("<%p>: stream socket(%d) created", static_cast<void*>(stream.get()), sock);
    return stream;
}

std::shared_ptr<HXKQueueUnixClient> HXKQueue::createUnixClient(const char* path) {
    auto client = HXKQueueUnixClient::initWithParent(weak_from_this(), logger);
    if (client && !(client->connectToPath(path) && tryAddActiveObject(client))) {
        client->stop();  // closes what connectToPath got as far as opening
        client = nullptr;
    }
    if (!client) {
        logger->error("cannot initialize unix socket object");
        return nullptr;
    }
    logger->debug("<%p>: unix(%s) created", static_cast<void*>(client.get()), path);
    return client;
}

std::shared_ptr<HXKQueueTCPClient> HXKQueue::createTCPClient(const struct sockaddr* address) {
    auto client = HXKQueueTCPClient::initWithParent(weak_from_this(), logger);
    if (client && !(client->connectToAddress(address) && tryAddActiveObject(client))) {
        client->stop();  // closes what connectToAddress got as far as opening
        client = nullptr;
    }
    if (!client) {
        logger->error("cannot initialize TCP socket object");
        return nullptr;
    }
    logInet("TCP Client", address, client.get());
    return client;
}

std::shared_ptr<HXKQueueTCPServer> HXKQueue::createTCPServer(const struct sockaddr* address) {
    auto server = HXKQueueTCPServer::initWithSockaddr(address, weak_from_this(), logger);
    if (server && !tryAddActiveObject(server)) {
        server->stop();  // closes its socket
        server = nullptr;
    }
    if (!server) {
        logger->error("cannot initialize TCP server socket object");
        return nullptr;
    }
    logInet("TCP Server", address, server.get());
    return server;
}

std::shared_ptr<HXKQueueUnixServer> HXKQueue::createUnixServer(const char* path, uint16_t perm) {
    auto server = HXKQueueUnixServer::initWithPath(path, perm, weak_from_this(), logger);
    if (server && !tryAddActiveObject(server)) {
        server->stop();  // closes its socket
        server = nullptr;
    }
    if (!server) {
        logger->error("cannot initialize unix server socket object");
        return nullptr;
    }
    logger->debug("<%p>: unix server(%s) created", static_cast<void*>(server.get()), path);
    return server;
}

std::shared_ptr<HXKQueueBipipeClient> HXKQueue::createBipipeClient(const int descriptors[2],
                                                                   bool closeOnStop) {
    const int in = descriptors[0];
    const int out = descriptors[1];
    auto bipipe =
        HXKQueueBipipeClient::initWithIndesc(in, out, closeOnStop, weak_from_this(), logger);
    if (!bipipe || !tryAddActiveObject(bipipe)) {
        logger->error("cannot initialize bipipe object");
        return nullptr;
    }
    logger->debug("<%p>: bipipe(%d,%d) created", static_cast<void*>(bipipe.get()), in, out);
    return bipipe;
}

std::shared_ptr<HXKQueueTimer> HXKQueue::createTimer(uint64_t ms, bool oneShot) {
    int32_t ident = 0;
    auto timer = addTimer(ms, &ident, oneShot);
    if (timer && !tryAddActiveObject(timer)) {
        removeTimer(timer);
        timer = nullptr;
    }
    if (!timer) {
        logger->error("cannot initialize timer object");
        return nullptr;
    }
    logger->debug("<%p>: timer #%d created", static_cast<void*>(timer.get()), ident);
    return timer;
}

void HXKQueue::startObject(const std::shared_ptr<HXKQueueEventProtocol>& object,
                           HXKQueueEventBlock onEvent) {
    if (object) object->enableOnData(std::move(onEvent));
}

bool HXKQueue::write(const std::shared_ptr<HXKQueueEventProtocol>& object, const char* buffer,
                     uint64_t size) {
    if (object) object->write(buffer, size);
    return true;
}

void HXKQueue::stopObject(const std::shared_ptr<HXKQueueEventProtocol>& object) {
    const std::lock_guard guard(*lock);
    const auto registered = activeList.find(keyOf(object.get()));
    if (registered == activeList.end()) return;
    try {
        activeListChanged.push_back(registered->first);
        stopList.insert(object);
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot stop object", static_cast<void*>(object.get()));
        return;
    }
    activeList.erase(registered);
}

void HXKQueue::addActiveObject(const std::shared_ptr<HXKQueueEventProtocol>& object) {
    const std::lock_guard guard(*lock);
    const uint64_t key = keyOf(object.get());
    try {
        activeListChanged.push_back(key);
        activeList[key] = object;
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot be added", static_cast<void*>(object.get()));
    }
}

bool HXKQueue::tryAddActiveObject(const std::shared_ptr<HXKQueueEventProtocol>& object) {
    const std::lock_guard guard(*lock);
    addActiveObject(object);
    return activeList.contains(keyOf(object.get()));
}

// A send may race with stopObject: the source must not be armed again once it is on its way out.
void HXKQueue::submitChange(const struct kevent* change) {
    const std::lock_guard guard(*lock);
    const bool removal = (change->flags & EV_DELETE) != 0;
    if (!removal && !activeList.contains(keyOf(change->udata))) return;
    try {
        changeList.push_back(*change);
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot submit change", change->udata);
    }
}

void HXKQueue::dropUnlocked(std::shared_ptr<const HXKQueueEventBlock> block) noexcept {
    if (!block) return;
    const std::lock_guard guard(*lock);
    try {
        stoppedBlocks.push_back(std::move(block));
    } catch (const std::bad_alloc&) {
        block.reset();
    }
}

void HXKQueue::logInet(const char* kind, const struct sockaddr* address, const void* object) const {
    if (!logger->isEnabled(LogLevel::Debug)) return;
    char buffer[100];
    const char* text = nullptr;
    uint16_t port = 0;
    if (address->sa_family == AF_INET6) {
        const auto* inet6 = reinterpret_cast<const struct sockaddr_in6*>(address);
        text = inet_ntop(AF_INET6, &inet6->sin6_addr, buffer, sizeof buffer);
        port = ntohs(inet6->sin6_port);
    } else if (address->sa_family == AF_INET) {
        const auto* inet = reinterpret_cast<const struct sockaddr_in*>(address);
        text = inet_ntop(AF_INET, &inet->sin_addr, buffer, sizeof buffer);
        port = ntohs(inet->sin_port);
    }
    logger->debug("<%p>: %s (%s:%hu) created", object, kind, text ? text : "unknown", port);
}

void HXKQueue::ioThreadRoutine(void* /*ignored*/) {
    logger->debug("io thread started");
    IOThreadState io;
    const bool buffersMade = attempt(*logger, "cannot initialize event list", [&io] {
        io.events.resize(kEventRoom);
        io.changes.reserve(kChangeCapacity);
    });
    if (!buffersMade) return;
    {
        const std::lock_guard guard(*lock);
        const bool copied =
            attempt(*logger, "cannot initialize active list", [&] { io.snapshot = activeList; });
        activeListChanged.clear();
        if (!copied) return;
    }
    while (!ioThread->isCancelled()) {
        if (!prepareIteration(io)) return;
        io.stoppedBlocks.clear();
        const int count = ::kevent(kq, io.changes.data(), static_cast<int>(io.changes.size()),
                                   io.events.data(), static_cast<int>(io.events.size()), &kWait);
        dispatch(io, count);
    }
}

// Stops come before the copies, so that the removals they queue go out with this iteration's wait
// and no record is routed to a stopped source. Under one hold of lock, so that no record can be
// returned for a source which the snapshot does not hold yet.
bool HXKQueue::prepareIteration(IOThreadState& io) {
    const std::lock_guard guard(*lock);
    releaseStoppedUnlocked();
    const bool renewed =
        attempt(*logger, "copying active list error", [&] { renewSnapshotUnlocked(io.snapshot); });
    if (!renewed) return false;
    io.changes.clear();
    io.changes.swap(changeList);
    io.stoppedBlocks.swap(stoppedBlocks);
    return true;
}

// Makes the snapshot a copy of activeList again, at the cost of what has changed and not of what
// there is.
void HXKQueue::renewSnapshotUnlocked(SourceMap& snapshot) {
    for (const uint64_t key : activeListChanged) {
        const auto active = activeList.find(key);
        if (active == activeList.end())
            snapshot.erase(key);
        else
            snapshot.insert_or_assign(key, active->second);
    }
    activeListChanged.clear();
}

// A failed removal comes back with EV_DELETE in its flags: nobody waits for that. A count of 0 or
// -1 has no records.
void HXKQueue::dispatch(const IOThreadState& io, int count) {
    for (int i = 0; i < count; ++i) {
        const struct kevent& record = io.events[static_cast<size_t>(i)];
        if ((record.flags & EV_DELETE) != 0) continue;
        const auto source = io.snapshot.find(keyOf(record.udata));
        if (source != io.snapshot.end()) source->second->kevent(&record);
    }
}

void HXKQueue::releaseStoppedUnlocked() {
    if (stopList.empty()) return;
    while (!stopList.empty()) {
        const auto stopped = stopList.extract(stopList.begin());
        removeTimer(stopped.value());
        stopped.value()->stop();
    }
    dropAdditionsOfStoppedUnlocked();
}

// A stop may have closed a descriptor whose arming is still queued. By the time the kernel sees
// that, the number may mean somebody else's descriptor, and nobody would ever remove the filter.
void HXKQueue::dropAdditionsOfStoppedUnlocked() {
    std::erase_if(changeList, [this](const struct kevent& change) {
        return (change.flags & EV_DELETE) == 0 && !activeList.contains(keyOf(change.udata));
    });
}

// What can fail comes first, on lists of one; to put them at the end of the registry's cannot.
std::shared_ptr<HXKQueueTimer> HXKQueue::addTimer(uint64_t ms, int32_t* ident, bool oneShot) {
    const std::lock_guard guard(*timersLock);
    const std::optional<int32_t> lowest = timerIndex->lowestFreeIdent();
    if (!lowest) return nullptr;
    assert(!isHereTimerIdent(*lowest));
    std::list<int32_t> number;
    if (!attempt(*logger, "cannot allocate number for timer", [&] { number.push_back(*lowest); }))
        return nullptr;
    std::list<std::shared_ptr<HXKQueueTimer>> timer;
    const bool made = attempt(*logger, "cannot allocate timer", [&] {
        timer.push_back(HXKQueueTimer::initWithIdent(*lowest, static_cast<int32_t>(ms), oneShot,
                                                     weak_from_this(), logger));
        if (!timer.front()) throw std::bad_alloc();
        timerIndex->enter({.ident = number.begin(), .object = timer.begin()});
    });
    if (!made) return nullptr;
    timerIdents->splice(timerIdents->end(), number);
    timerObjects->splice(timerObjects->end(), timer);
    *ident = *lowest;
    return timerObjects->back();
}

void HXKQueue::removeTimer(const std::shared_ptr<HXKQueueEventProtocol>& object) {
    const std::lock_guard guard(*timersLock);
    const auto place = timerIndex->leave(object.get());
    if (!place) return;
    timerObjects->erase(place->object);
    timerIdents->erase(place->ident);
    assert(timerIdents->size() == timerObjects->size());
}

bool HXKQueue::isHereTimerIdent(int32_t ident) const {
    return timerIndex->isTaken(ident);
}
