#include "platform/linux/descriptor_table.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace epollqueue {

namespace {

struct epoll_event eventFor(const Descriptor& descriptor, uint32_t mask) {
    struct epoll_event event = {};
    event.events = mask;
    event.data.u64 = uint64_t{descriptor.generation} << 32 | static_cast<uint32_t>(descriptor.fd);
    return event;
}

// The number may be closed and reused by another thread at this very moment; what epoll is told of
// then is found out when it is reported. (The thread sanitizer calls that a race, and is told not
// to by this name.)
int tellEpoll(int epollFd, int operation, int fd, struct epoll_event* event) {
    return epoll_ctl(epollFd, operation, fd, event);
}

bool isAcceptedByEpoll(int epollFd, int fd) {
    struct epoll_event nothing = {};
    if (tellEpoll(epollFd, EPOLL_CTL_ADD, fd, &nothing) != 0) return errno != EPERM;
    tellEpoll(epollFd, EPOLL_CTL_DEL, fd, nullptr);
    return true;
}

uint32_t wantedMask(const Descriptor& descriptor) {
    if (isAlwaysReady(descriptor.kind)) return 0;
    uint32_t mask = 0;
    if (descriptor.read.present && !descriptor.read.probed) mask |= readEvents(descriptor.kind);
    if (descriptor.write.present && !descriptor.write.probed) mask |= EPOLLOUT;
    return mask != 0 && descriptor.dozing ? mask | EPOLLET : mask;
}

}  // namespace

// The number may be closed and reused by another thread at this very moment; whatever it means now
// is right. (The thread sanitizer calls that a race, and is told not to by this name.)
bool currentStatus(int fd, struct stat& status) noexcept {
    return fstat(fd, &status) == 0;
}

DescriptorTable::DescriptorTable(int epollFd_) noexcept : epollFd(epollFd_) {}

Descriptor* DescriptorTable::find(int fd) const noexcept {
    const auto index = static_cast<size_t>(fd);
    return index < descriptors.size() ? descriptors[index].get() : nullptr;
}

// What an open descriptor means may be out of the kernel's sight for a moment (ENOMEM): to forget
// it then would leave its owner waiting.
Descriptor* DescriptorTable::findUnchanged(int fd) noexcept {
    struct stat status;
    Descriptor* descriptor = find(fd);
    if (!descriptor) return nullptr;
    const bool isUnchanged = currentStatus(fd, status) ? descriptor->device == status.st_dev &&
                                                             descriptor->inode == status.st_ino
                                                       : errno != EBADF;
    if (isUnchanged) return descriptor;
    forget(fd);
    return nullptr;
}

// Sockets have inodes of their own. A FIFO or terminal that is opened again has the old inode, but
// epoll does not know the new open file.
Descriptor* DescriptorTable::findUnchanged(int fd, const struct stat& status) noexcept {
    Descriptor* descriptor = find(fd);
    if (descriptor && descriptor->device == status.st_dev && descriptor->inode == status.st_ino &&
        (isSocket(descriptor->kind) || isKnownToEpoll(*descriptor)))
        return descriptor;
    forget(fd);
    return nullptr;
}

Filter* DescriptorTable::find(const Ticket& ticket) const noexcept {
    Descriptor* descriptor = find(ticket.fd);
    if (!descriptor) return nullptr;
    Filter& filter = descriptor->filter(ticket.filter);
    return filter.present && filter.serial == ticket.serial ? &filter : nullptr;
}

Descriptor* DescriptorTable::find(const struct epoll_event& report) const noexcept {
    Descriptor* descriptor = find(static_cast<int>(report.data.u64 & UINT32_MAX));
    if (!descriptor || descriptor->generation != report.data.u64 >> 32) return nullptr;
    return descriptor;
}

Descriptor& DescriptorTable::create(int fd, const struct stat& status) {
    const auto index = static_cast<size_t>(fd);
    if (index >= descriptors.size()) descriptors.resize(index + 1);
    auto made = std::make_unique<Descriptor>();
    made->fd = fd;
    made->generation = ++lastGeneration;
    made->device = status.st_dev;
    made->inode = status.st_ino;
    made->kind = kindOf(fd, status);
    if (made->kind == DescriptorKind::OtherDevice && isAcceptedByEpoll(epollFd, fd))
        made->kind = DescriptorKind::OtherPollable;
    made->leastRoom = leastWritableBytes(fd, made->kind).value_or(0);
    if (!descriptors[index]) ++entries;
    descriptors[index] = std::move(made);
    return *descriptors[index];
}

void DescriptorTable::forget(int fd) noexcept {
    const auto index = static_cast<size_t>(fd);
    if (index >= descriptors.size() || !descriptors[index]) return;
    descriptors[index] = nullptr;
    --entries;
}

// EEXIST: the descriptor had been forgotten, and was made again from a duplicate of itself.
int DescriptorTable::watch(Descriptor& descriptor) const noexcept {
    const uint32_t mask = wantedMask(descriptor);
    if (mask == descriptor.mask) return 0;
    int operation = EPOLL_CTL_MOD;
    if (descriptor.mask == 0) operation = EPOLL_CTL_ADD;
    if (mask == 0) operation = EPOLL_CTL_DEL;
    struct epoll_event event = eventFor(descriptor, mask);
    int result = tellEpoll(epollFd, operation, descriptor.fd, &event);
    if (result != 0 && errno == EEXIST)
        result = tellEpoll(epollFd, EPOLL_CTL_MOD, descriptor.fd, &event);
    if (result != 0) return errno;
    descriptor.mask = mask;
    return 0;
}

bool DescriptorTable::rebuild() noexcept {
    const int fresh = epoll_create1(EPOLL_CLOEXEC);
    if (fresh == -1) return false;
    const bool isComplete = watchAll(fresh) && dup3(fresh, epollFd, O_CLOEXEC) != -1;
    close(fresh);
    return isComplete;
}

// A descriptor that is closed at this very moment is not missed.
bool DescriptorTable::watchAll(int fresh) noexcept {
    for (size_t fd = 0; fd < descriptors.size(); ++fd) {
        if (!descriptors[fd] || descriptors[fd]->mask == 0) continue;
        const Descriptor* descriptor = findUnchanged(static_cast<int>(fd));
        if (!descriptor) continue;
        struct epoll_event event = eventFor(*descriptor, descriptor->mask);
        if (tellEpoll(fresh, EPOLL_CTL_ADD, descriptor->fd, &event) == 0) continue;
        if (errno == ENOMEM || errno == ENOSPC) return false;
        forget(descriptor->fd);
    }
    return true;
}

bool DescriptorTable::isKnownToEpoll(const Descriptor& descriptor) const noexcept {
    if (descriptor.mask == 0) return true;  // nothing to tell by
    struct epoll_event event = eventFor(descriptor, descriptor.mask);
    return tellEpoll(epollFd, EPOLL_CTL_MOD, descriptor.fd, &event) == 0 || errno != ENOENT;
}

}  // namespace epollqueue
