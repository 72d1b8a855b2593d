// One kernel event queue over epoll. Internal to platform/linux; <sys/event.h> says what it
// promises.
//
// How it works
//   Every descriptor with a filter has an entry in `table`, which tells whether its number still
//   means the same open file, and what epoll watches it for.
//   The read filter is a level-triggered EPOLLIN. A write filter costs no epoll_ctl as long as
//   the descriptor can take bytes: it is put on the `probes` list, which one poll answers for
//   together with epoll itself. Only one that cannot take bytes is handed to epoll. A filter that
//   epoll has no memory or watches for stays on that list, and is offered to epoll again.
//   What is found ready goes through `ready`, first in, first out, and its count is taken when it
//   is delivered. What does not fit is looked at again, in front, by the next call.
//   Most calls to the kernel would only ask whether a number still means the open file that was
//   registered. What a call has just returned a record of is trusted by the next one's changes,
//   and a busy socket is asked about once in so many records; whatever looks unusual is proved.
//   A readiness that turns out to be nothing (no bytes, no end) would come back at once, so its
//   descriptor dozes: edge-triggered until something is delivered from it. Behind an empty datagram
//   others show without an edge, so such sockets are woken by the next call.
//   An addition without memory waits in `postponed`, and is tried again by every call
//   and, while one waits, now and then.
//
// Threads    any; the queue's lock is held throughout a call, the wait included.
#pragma once

#include <poll.h>
#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/linux/descriptor_table.h"
#include "platform/linux/postponed_additions.h"
#include "platform/linux/timer_set.h"
#include "platform/linux/waits.h"

namespace epollqueue {

class EventQueue {
public:
    // epollFd stays the caller's. Throws std::bad_alloc.
    explicit EventQueue(int epollFd);

    // As kevent(2).
    int exchange(std::span<const struct kevent> changes, std::span<struct kevent> room,
                 const struct timespec* timeout);

private:
    // What a call says of changes that fail.
    struct Answers {
        std::span<struct kevent> room;
        size_t count = 0;
        int firstError = 0;

        void fail(const struct kevent& change, int error) noexcept;

        // For want of memory. To a server, which would wait for a connection, nothing is told.
        void tellEnd(const struct kevent& addition) noexcept;
    };

    // Changes. apply... answers with 0 or the error number.
    void answerChange(const struct kevent& change, Answers& answers) noexcept;
    void retryPostponed(Answers& answers) noexcept;
    int apply(const struct kevent& change) noexcept;
    int applyToTimer(const struct kevent& change);
    int applyToDescriptor(const struct kevent& change);
    [[nodiscard]] bool answersRecord(const Descriptor& descriptor,
                                     const struct kevent& change) const noexcept;
    Descriptor& createDescriptor(int fd, const struct stat& status);
    void reserveForFilters(size_t descriptors);
    int addFilter(Descriptor& descriptor, const struct kevent& change);
    bool askByPoll(Descriptor& descriptor, int16_t number) noexcept;
    bool enlist(const Descriptor& descriptor, int16_t filter, uint64_t serial);
    void addProbe(const Ticket& ticket);
    void dropStaleProbes() noexcept;
    void removeFilter(Descriptor& descriptor, Filter& filter) noexcept;

    // Waiting. False, with errno, when the wait failed.
    int collect(std::span<struct kevent> room, const struct timespec* timeout);
    std::optional<Nanoseconds> waitingTime(std::optional<Nanoseconds> end) const noexcept;
    bool waitForReadiness(std::optional<Nanoseconds> timeout);
    bool waitWithProbes(std::optional<Nanoseconds> timeout);
    bool takeEpollEvents(std::optional<Nanoseconds> timeout);
    void takeEpollEvent(const struct epoll_event& event);
    void takeProbeAnswers();
    [[nodiscard]] short pollEvents(const Ticket& ticket) const noexcept;
    bool lookAgainAtLeftovers();
    void wakeDatagrams() noexcept;
    void lookAtFiles();
    void enqueue(Filter& filter, const Ticket& ticket, uint32_t seen);

    // Delivering.
    size_t deliver(std::span<struct kevent> room) noexcept;
    size_t deliverReady(std::span<struct kevent> room) noexcept;
    size_t deliverTimers(std::span<struct kevent> room) noexcept;
    bool deliverOne(const Ticket& ticket, struct kevent& record) noexcept;
    bool fillOnTrust(Descriptor& descriptor, const Ticket& ticket,
                     struct kevent& record) const noexcept;
    bool fillProved(Descriptor& descriptor, const Ticket& ticket, struct kevent& record) noexcept;
    static bool failAddition(struct kevent& record) noexcept;
    [[nodiscard]] bool isOfThisCall(const Ticket& ticket) const noexcept {
        return ticket.serial > lastSerialBefore;
    }

    std::mutex lock;  // guards everything below
    const int epollFd;
    DescriptorTable table;
    TimerSet timers;
    PostponedAdditions postponed;
    std::vector<Ticket> ready;
    std::vector<Ticket> probes;
    std::vector<int> files;            // with a filter on something that epoll refuses
    std::vector<int> dozingDatagrams;  // since the last call
    std::vector<struct epoll_event> events;
    std::vector<struct pollfd> polled;
    uint64_t lastSerial = 0;
    uint64_t lastSerialBefore = 0;  // the call that goes on
    uint64_t calls = 0;
    bool hasStrays = false;
    bool isRefused = false;  // by epoll, so that what ought to wait for an event comes back at once
    bool timersFirst = false;  // takes turns, so that neither timers nor descriptors starve
};

}  // namespace epollqueue
