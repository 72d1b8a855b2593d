// The descriptors that have filters in one kernel event queue, by number, and what epoll is told
// of them. Internal to platform/linux.
//
// A number is closed and handed out again without a word to the table, so each entry knows the
// open file (by device and inode) that was registered.
//
// epoll watches open files, not numbers: one that is closed while a duplicate lives goes on being
// reported. Such a stray carries the generation of an entry that is gone. It can no longer be named
// to epoll_ctl, so rebuild makes the epoll instance anew under the same number.
//
// Threads    the queue's lock is held throughout.
// Ownership  no descriptor is the table's, the epoll instance included.
#pragma once

#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/byte_counts.h"

namespace epollqueue {

struct Filter {
    bool present = false;
    bool oneShot = false;
    bool probed = false;  // asked for by poll rather than by epoll
    bool queued = false;  // waits for its delivery
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
    uint32_t mask = 0;    // what epoll was asked for; 0: it does not know the descriptor
    bool dozing = false;  // edge-triggered until something is delivered
    int error = 0;        // the socket's, kept because asking for it makes the kernel forget it
    bool hadOutOfBand = false;  // a Unix socket's FIONREAD may count a byte that no read finds
    uint64_t lastRecord = 0;    // the call that returned it
    int recordsOnTrust = 0;     // left until its identity is to be proved again
    int64_t leastRoom = 0;      // of a write filter that is ready when it is added; 0: to be asked
    bool writesMuch = false;    // more at a time than that

    Filter& filter(int16_t number) { return number == EVFILT_READ ? read : write; }
};

// A registration that may be gone by the time it is looked at.
struct Ticket {
    int fd;
    int16_t filter;
    uint64_t serial;
};

// What the number means now. False, with errno, when it is closed.
[[nodiscard]] bool currentStatus(int fd, struct stat& status) noexcept;

// The EPOLL bits, which are poll's too, that come without being asked for.
inline constexpr uint32_t kEndEvents = EPOLLHUP | EPOLLERR;

// Those that a read filter asks for.
[[nodiscard]] constexpr uint32_t readEvents(DescriptorKind kind) {
    const bool tellsMore = kind == DescriptorKind::UnixSocket || kind == DescriptorKind::Terminal;
    return EPOLLIN | EPOLLRDHUP | (tellsMore ? EPOLLPRI : 0U);
}

class DescriptorTable {
public:
    explicit DescriptorTable(int epollFd) noexcept;

    [[nodiscard]] size_t count() const noexcept { return entries; }

    // By number alone. Null when there is no entry.
    [[nodiscard]] Descriptor* find(int fd) const noexcept;

    // While the number still means the open file that was registered; the entry is forgotten
    // otherwise.
    [[nodiscard]] Descriptor* findUnchanged(int fd) noexcept;
    [[nodiscard]] Descriptor* findUnchanged(int fd, const struct stat& status) noexcept;

    // The filter that the ticket is for; null when it is gone.
    [[nodiscard]] Filter* find(const Ticket& ticket) const noexcept;

    // The entry that a report of epoll is about; null for a stray.
    [[nodiscard]] Descriptor* find(const struct epoll_event& report) const noexcept;

    // Takes the place of an earlier entry. Throws std::bad_alloc.
    Descriptor& create(int fd, const struct stat& status);

    // What epoll still knows of it turns up as a stray.
    void forget(int fd) noexcept;

    // Has epoll watch for what the filters want now. 0, or the error number.
    int watch(Descriptor& descriptor) const noexcept;

    // Rids the epoll instance of its strays. False when the kernel has no descriptor, no memory or
    // no watches to spare: they stay then, and reach nobody.
    [[nodiscard]] bool rebuild() noexcept;

private:
    [[nodiscard]] bool watchAll(int fresh) noexcept;
    [[nodiscard]] bool isKnownToEpoll(const Descriptor& descriptor) const noexcept;

    const int epollFd;
    std::vector<std::unique_ptr<Descriptor>> descriptors;  // by number
    size_t entries = 0;
    uint32_t lastGeneration = 0;
};

}  // namespace epollqueue
