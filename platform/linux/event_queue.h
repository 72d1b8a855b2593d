// One kernel event queue over epoll. Internal to platform/linux; <sys/event.h> says what it
// promises.
//
// How it works
//   Every descriptor with a filter has an entry in `descriptors`, found by its number and checked
//   against the open file's identity (device and inode) whenever it is used, because a number can
//   be closed and handed out again without a word to the queue.
//   The read filter is a level-triggered EPOLLIN. A write filter costs no epoll_ctl as long as
//   the descriptor can take bytes: it is put on the `probes` list, which one poll answers for
//   together with epoll itself. Only one that cannot take bytes is handed to epoll.
//   What is found ready goes through `ready`, first in, first out, and its count is taken when it
//   is delivered. What does not fit is looked at again, in front, by the next call.
//   A readiness that turns out to be nothing (no bytes, no end) would come back at once, so its
//   descriptor dozes: edge-triggered until something is delivered from it.
//   epoll watches open files, not numbers: one that is closed while a duplicate lives goes on
//   being reported. Such a stray is told by its generation or identity, and as it can no longer be
//   named to epoll_ctl, the epoll instance is built anew under the same number.
//
// Threads    any; the queue's lock is held throughout a call, the wait included.
#pragma once

#include <poll.h>
#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/linux/byte_counts.h"
#include "platform/linux/timer_set.h"

class EventQueue {
public:
    // epollFd stays the caller's. Throws std::bad_alloc.
    explicit EventQueue(int epollFd);

    // As kevent(2).
    int exchange(std::span<const struct kevent> changes, std::span<struct kevent> room,
                 const struct timespec* timeout);

private:
    using Nanoseconds = TimerSet::Nanoseconds;

    struct Filter {
        bool present = false;
        bool oneShot = false;
        bool probed = false;  // write: on the probes list rather than with epoll
        bool queued = false;  // waits in ready
        uint32_t seen = 0;    // EPOLL bits that it was found ready with
        uint64_t serial = 0;  // of the registration, never used twice
        void* udata = nullptr;
    };

    struct Descriptor {
        int fd = -1;
        uint32_t generation = 0;
        dev_t device = 0;
        ino_t inode = 0;
        DescriptorKind kind = DescriptorKind::Unsupported;
        Filter read;
        Filter write;
        uint32_t mask = 0;  // what epoll was asked for; 0: it does not know the descriptor
        bool dozing = false;
        int error = 0;  // the socket's, kept because asking for it makes the kernel forget it
    };

    // A registration that may be gone by the time it is looked at.
    struct Ticket {
        int fd;
        int16_t filter;
        uint64_t serial;
    };

    // Changes. Each answers with 0 or the error number.
    int apply(const struct kevent& change) noexcept;
    int applyToTimer(const struct kevent& change);
    int applyToDescriptor(const struct kevent& change);
    int addFilter(Descriptor& descriptor, const struct kevent& change);
    bool enlist(const Descriptor& descriptor, int16_t filter, uint64_t serial);
    void removeFilter(Descriptor& descriptor, Filter& filter) noexcept;

    // The table. find answers by number alone; findUnchanged only while the number still means
    // the open file that was registered, and forgets the descriptor otherwise.
    Descriptor* find(int fd) const noexcept;
    Descriptor* findUnchanged(int fd) noexcept;
    bool isUnchanged(const Descriptor& descriptor, const struct stat& status) const noexcept;
    Descriptor& create(int fd, const struct stat& status);
    void forget(int fd) noexcept;
    Filter* holderOf(const Ticket& ticket) const noexcept;
    static Filter& filterOf(Descriptor& descriptor, int16_t filter) noexcept;
    static struct epoll_event eventFor(const Descriptor& descriptor, uint32_t mask) noexcept;
    int watch(Descriptor& descriptor) const noexcept;
    void rebuild() noexcept;

    // Waiting. False, with errno, when the wait failed.
    int collect(std::span<struct kevent> room, const struct timespec* timeout);
    std::optional<Nanoseconds> waitingTime(std::optional<Nanoseconds> end) const noexcept;
    bool waitForReadiness(std::optional<Nanoseconds> timeout);
    bool waitWithProbes(std::optional<Nanoseconds> timeout);
    bool takeEpollEvents(std::optional<Nanoseconds> timeout);
    void takeEpollEvent(const struct epoll_event& event);
    void takeProbeAnswers();
    void lookAgainAtLeftovers();
    void lookAtFiles();
    void enqueue(Filter& filter, const Ticket& ticket, uint32_t seen);

    // Delivering.
    size_t deliver(std::span<struct kevent> room) noexcept;
    size_t deliverReady(std::span<struct kevent> room) noexcept;
    size_t deliverTimers(std::span<struct kevent> room) noexcept;
    bool deliverOne(const Ticket& ticket, struct kevent& record) noexcept;
    static bool fillReadRecord(Descriptor& descriptor, struct kevent& record) noexcept;
    static bool fillWriteRecord(Descriptor& descriptor, struct kevent& record) noexcept;
    static void markEnded(Descriptor& descriptor, uint32_t seen, struct kevent& record) noexcept;

    std::mutex lock;  // guards everything below
    const int epollFd;
    std::vector<std::unique_ptr<Descriptor>> descriptors;  // by number
    TimerSet timers;
    std::vector<Ticket> ready;
    std::vector<Ticket> probes;
    std::vector<int> files;  // with a filter on something that epoll refuses
    std::vector<struct epoll_event> events;
    std::vector<struct pollfd> polled;
    uint64_t lastSerial = 0;
    uint32_t lastGeneration = 0;
    bool hasStrays = false;
    bool timersFirst = false;  // takes turns, so that neither timers nor descriptors starve
};
