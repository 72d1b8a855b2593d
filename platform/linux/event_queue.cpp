#include "platform/linux/event_queue.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include "platform/linux/ready_record.h"

namespace epollqueue {

namespace {

// What one call takes from epoll. Of 1,000 busy connections a message takes 2.4 us of processor
// time with this many and 2.7 with all at once: what is read in one call and answered in the next
// then stays in the processor's caches in between.
constexpr size_t kEventBatch = 128;

// Nothing tells when a regular file grows, or when there is memory again, so a wait that includes
// such a filter looks this often.
constexpr Nanoseconds kLookInterval = 50 * kPerMillisecond;

// A lack of memory that has lasted this long is told of.
constexpr Nanoseconds kPatience = 500 * kPerMillisecond;

// One in 32 costs a busy socket a thirtieth of a system call a record.
constexpr int kRecordsOnTrust = 31;

// The kernel has no memory for another watch, or the user has used up all of
// /proc/sys/fs/epoll/max_user_watches (epoll_ctl(2)).
bool isShortage(int error) {
    return error == ENOMEM || error == ENOSPC;
}

void addOnce(std::vector<int>& fds, int fd) {
    if (std::find(fds.begin(), fds.end(), fd) == fds.end()) fds.push_back(fd);
}

template <typename Item>
void reserveAtLeast(std::vector<Item>& items, size_t count) {
    if (items.capacity() < count) items.reserve(std::max(count, 2 * items.capacity()));
}

bool isAddition(const struct kevent& change) {
    return (change.flags & (EV_ADD | EV_DELETE)) == EV_ADD;
}

// A wait that was not interrupted, but cannot be, fails the same way when it is called again.
int failWait() {
    if (errno != EINTR) pauseWhenRefused();
    return -1;
}

}  // namespace

EventQueue::EventQueue(int epollFd_) : epollFd(epollFd_), table(epollFd_), events(kEventBatch) {
    reserveForFilters(0);
}

int EventQueue::exchange(std::span<const struct kevent> changes, std::span<struct kevent> room,
                         const struct timespec* timeout) {
    const std::lock_guard guard(lock);
    if (timeout && !isValid(*timeout)) {
        errno = EINVAL;
        return -1;
    }
    ++calls;
    lastSerialBefore = lastSerial;
    Answers answers{.room = room};
    retryPostponed(answers);
    for (const struct kevent& change : changes)
        answerChange(change, answers);
    if (room.empty() && answers.firstError != 0) {
        errno = answers.firstError;
        return -1;
    }
    if (answers.count > 0 || room.empty()) return static_cast<int>(answers.count);
    return collect(room, timeout);
}

// Changes

void EventQueue::Answers::fail(const struct kevent& change, int error) noexcept {
    if (firstError == 0) firstError = error;
    if (count == room.size()) return;
    struct kevent& record = room[count++];
    record = change;
    record.flags |= EV_ERROR;
    record.data = error;
}

void EventQueue::Answers::tellEnd(const struct kevent& addition) noexcept {
    if (firstError == 0) firstError = ENOMEM;
    if (count == room.size() || isListening(static_cast<int>(addition.ident))) return;
    EV_SET(&room[count++], addition.ident, addition.filter, EV_EOF, ENOMEM, 0, addition.udata);
}

// A change of a filter that waits for memory succeeds as if it were there.
void EventQueue::answerChange(const struct kevent& change, Answers& answers) noexcept {
    const int error = apply(change);
    if (error == ENOMEM && change.filter != EVFILT_TIMER) {
        if (!postponed.put(change)) answers.tellEnd(change);
        return;
    }
    const bool wasPostponed = !postponed.isEmpty() && postponed.contains(change);
    if (wasPostponed && error != EINVAL && (change.flags & (EV_ADD | EV_DELETE)) != 0)
        postponed.cancel(change);
    if (error != 0 && !(wasPostponed && error == ENOENT)) answers.fail(change, error);
}

// Told at once, a lack of memory would end what can still be had; never told, it would leave an
// owner waiting. Who does not take it for an end may still have the filter later: a socket that has
// bytes to write does not.
void EventQueue::retryPostponed(Answers& answers) noexcept {
    if (postponed.isEmpty()) return;
    const Nanoseconds now = TimerSet::now();
    postponed.retry([&](PostponedAdditions::Addition& addition) {
        const int error = apply(addition.change);
        if (error == 0) return true;
        if (answers.count == answers.room.size()) return false;
        if (error != ENOMEM) {
            answers.fail(addition.change, error);
            return true;
        }
        if (now - addition.since >= kPatience) {
            answers.tellEnd(addition.change);
            addition.since = now;
        }
        return false;
    });
}

int EventQueue::apply(const struct kevent& change) noexcept {
    constexpr unsigned kSupported = EV_ADD | EV_DELETE | EV_ENABLE | EV_ONESHOT;
    if ((change.flags & ~kSupported) != 0) return EINVAL;
    try {
        switch (change.filter) {
            case EVFILT_TIMER:
                return applyToTimer(change);
            case EVFILT_READ:
            case EVFILT_WRITE:
                return applyToDescriptor(change);
            default:
                return EINVAL;
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int EventQueue::applyToTimer(const struct kevent& change) {
    if ((change.flags & EV_DELETE) != 0) return timers.remove(change.ident) ? 0 : ENOENT;
    if ((change.flags & EV_ADD) == 0) return timers.contains(change.ident) ? 0 : ENOENT;
    if ((change.fflags & ~uint32_t{NOTE_BACKGROUND}) != 0) return EINVAL;
    return timers.add(change, TimerSet::now());
}

// What a number means may be out of the kernel's sight for a moment (ENOMEM). An addition waits for
// it then; what the table knows can be removed without.
int EventQueue::applyToDescriptor(const struct kevent& change) {
    if (change.ident > INT_MAX) return EBADF;
    const int fd = static_cast<int>(change.ident);
    Descriptor* descriptor = table.find(fd);
    if (!descriptor || !answersRecord(*descriptor, change)) {
        struct stat status;
        if (currentStatus(fd, status)) {
            descriptor = table.findUnchanged(fd, status);
            if (!descriptor && isAddition(change) && change.fflags == 0)
                descriptor = &createDescriptor(fd, status);
        } else if (errno == EBADF) {
            table.forget(fd);
            return EBADF;
        } else if (isAddition(change) && change.fflags == 0) {
            return ENOMEM;
        }
    }
    if (isAddition(change)) return change.fflags == 0 ? addFilter(*descriptor, change) : EINVAL;
    if (!descriptor || !descriptor->filter(change.filter).present) return ENOENT;
    if ((change.flags & EV_DELETE) != 0)
        removeFilter(*descriptor, descriptor->filter(change.filter));
    return 0;
}

// From then on it needs no memory, neither for a second filter nor for waits: the owner of a filter
// that is already there could not be told of a lack of it.
Descriptor& EventQueue::createDescriptor(int fd, const struct stat& status) {
    reserveForFilters(table.count() + 1);
    return table.create(fd, status);
}

void EventQueue::reserveForFilters(size_t descriptors) {
    const size_t filters = 2 * descriptors;
    reserveAtLeast(ready, ready.size() + filters);
    reserveAtLeast(polled, 1 + filters);
    reserveAtLeast(probes, filters);
    reserveAtLeast(files, descriptors);
    reserveAtLeast(dozingDatagrams, dozingDatagrams.size() + descriptors);
}

// A write filter is armed and removed for every message, in answer to the record of the message
// read and that of the room to write it.
bool EventQueue::answersRecord(const Descriptor& descriptor,
                               const struct kevent& change) const noexcept {
    const auto isItsOwner = [&](const Filter& filter) {
        return filter.present && filter.udata == change.udata;
    };
    return change.filter == EVFILT_WRITE && descriptor.lastRecord + 1 == calls &&
           (isItsOwner(descriptor.read) || isItsOwner(descriptor.write));
}

int EventQueue::addFilter(Descriptor& descriptor, const struct kevent& change) {
    Filter& filter = descriptor.filter(change.filter);
    int error = descriptor.kind == DescriptorKind::Unsupported ? EINVAL : 0;
    if (error == 0 && !filter.present) {
        const uint64_t serial = ++lastSerial;
        const bool probed = enlist(descriptor, change.filter, serial);
        filter = {.present = true, .probed = probed, .serial = serial};
        if (change.filter == EVFILT_READ && descriptor.kind == DescriptorKind::UnixSocket)
            descriptor.hadOutOfBand = hasCountedBytes(descriptor.fd);
    }
    filter.oneShot = (change.flags & EV_ONESHOT) != 0;
    filter.udata = change.udata;
    if (error == 0) error = table.watch(descriptor);
    if (isShortage(error)) error = askByPoll(descriptor, change.filter) ? 0 : ENOMEM;
    if (error != 0) removeFilter(descriptor, filter);
    return error;
}

// What epoll cannot take poll is asked for, with every wait, until epoll takes it: a filter that is
// refused leaves its owner waiting. False without memory for that.
bool EventQueue::askByPoll(Descriptor& descriptor, int16_t number) noexcept {
    Filter& filter = descriptor.filter(number);
    const auto isItself = [&](const Ticket& probe) { return probe.serial == filter.serial; };
    try {
        if (std::none_of(probes.begin(), probes.end(), isItself))
            addProbe({.fd = descriptor.fd, .filter = number, .serial = filter.serial});
        filter.probed = true;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Puts a new filter on the list that it is found ready through, if that is not epoll. True when it
// is the probes list.
bool EventQueue::enlist(const Descriptor& descriptor, int16_t filter, uint64_t serial) {
    if (isAlwaysReady(descriptor.kind)) {
        addOnce(files, descriptor.fd);
        return false;
    }
    if (filter != EVFILT_WRITE) return false;
    addProbe({.fd = descriptor.fd, .filter = filter, .serial = serial});
    return true;
}

void EventQueue::addProbe(const Ticket& ticket) {
    if (probes.size() == probes.capacity()) dropStaleProbes();
    probes.push_back(ticket);
}

void EventQueue::dropStaleProbes() noexcept {
    std::erase_if(probes, [this](const Ticket& probe) {
        const Filter* filter = table.find(probe);
        return filter == nullptr || !filter->probed;
    });
}

void EventQueue::removeFilter(Descriptor& descriptor, Filter& filter) noexcept {
    filter = {};
    table.watch(descriptor);
    if (!descriptor.read.present && !descriptor.write.present) table.forget(descriptor.fd);
}

// Waiting

int EventQueue::collect(std::span<struct kevent> room, const struct timespec* timeout) {
    std::optional<Nanoseconds> end;
    if (timeout) end = TimerSet::now() + toNanoseconds(*timeout);
    try {
        if (!lookAgainAtLeftovers()) return failWait();
        wakeDatagrams();
        for (;;) {
            lookAtFiles();
            if (!waitForReadiness(waitingTime(end))) return failWait();
            const size_t count = deliver(room);
            if (std::exchange(hasStrays, false) && !table.rebuild()) isRefused = true;
            const bool wasRefused = std::exchange(isRefused, false);
            if (count > 0) return static_cast<int>(count);
            if (end && TimerSet::now() >= *end) return 0;
            if (wasRefused) pauseWhenRefused();
            Answers answers{.room = room};
            retryPostponed(answers);
            if (answers.count > 0) return static_cast<int>(answers.count);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return failWait();
    }
}

std::optional<Nanoseconds> EventQueue::waitingTime(std::optional<Nanoseconds> end) const noexcept {
    if (!ready.empty()) return 0;
    const std::optional<Nanoseconds> due = timers.nextDeadline();
    if (due && (!end || *due < *end)) end = due;
    const bool looksAgain = !files.empty() || !postponed.isEmpty();
    if (!end) return looksAgain ? std::optional(kLookInterval) : std::nullopt;
    const Nanoseconds longest = std::max<Nanoseconds>(*end - TimerSet::now(), 0);
    return looksAgain ? std::min(longest, kLookInterval) : longest;
}

bool EventQueue::waitForReadiness(std::optional<Nanoseconds> timeout) {
    dropStaleProbes();
    return probes.empty() ? takeEpollEvents(timeout) : waitWithProbes(timeout);
}

bool EventQueue::waitWithProbes(std::optional<Nanoseconds> timeout) {
    polled.clear();
    polled.push_back({.fd = epollFd, .events = POLLIN, .revents = 0});
    for (const Ticket& probe : probes)
        polled.push_back({.fd = probe.fd, .events = pollEvents(probe), .revents = 0});
    const int answers = waitOnPoll(polled, timeout);
    // EINVAL: more than the process may have open by now. Without answers they all go to epoll.
    if (answers == -1 && errno != EINVAL) return false;
    takeProbeAnswers();
    if (answers == -1) return takeEpollEvents(ready.empty() ? timeout : 0);
    return polled.front().revents == 0 || takeEpollEvents(0);
}

// REQUIRES: the ticket's filter is there.
short EventQueue::pollEvents(const Ticket& ticket) const noexcept {
    if (ticket.filter == EVFILT_WRITE) return POLLOUT;
    return static_cast<short>(readEvents(table.find(ticket.fd)->kind));
}

// Room comes first: what a dozing descriptor reports is not reported again.
bool EventQueue::takeEpollEvents(std::optional<Nanoseconds> timeout) {
    const int count = waitOnEpoll(epollFd, events, timeout);
    if (count == -1) return false;
    for (const struct epoll_event& event : std::span(events).first(static_cast<size_t>(count)))
        takeEpollEvent(event);
    return true;
}

void EventQueue::takeEpollEvent(const struct epoll_event& event) {
    Descriptor* descriptor = table.find(event);
    if (!descriptor) {
        hasStrays = true;
        return;
    }
    const int fd = descriptor->fd;
    Filter& read = descriptor->read;
    Filter& write = descriptor->write;
    if (read.present && !read.probed &&
        (event.events & (readEvents(descriptor->kind) | kEndEvents)) != 0)
        enqueue(read, {.fd = fd, .filter = EVFILT_READ, .serial = read.serial}, event.events);
    if (write.present && !write.probed && (event.events & (EPOLLOUT | kEndEvents)) != 0)
        enqueue(write, {.fd = fd, .filter = EVFILT_WRITE, .serial = write.serial}, event.events);
}

// One that is not ready now is handed to epoll, or, should epoll refuse it, asked again. epoll
// tells files apart, poll does not.
void EventQueue::takeProbeAnswers() {
    for (size_t i = 0; i < probes.size(); ++i) {
        Filter* filter = table.find(probes[i]);
        if (!filter) continue;
        const auto answer = static_cast<uint16_t>(polled[i + 1].revents);
        if (answer != 0) {
            if (probes[i].filter == EVFILT_READ) table.find(probes[i].fd)->recordsOnTrust = 0;
            enqueue(*filter, probes[i], answer);
        } else if (Descriptor* descriptor = table.findUnchanged(probes[i].fd)) {
            filter->probed = false;
            if (table.watch(*descriptor) != 0) filter->probed = true;
        }
    }
}

// What did not fit into the last call's room may have been read or filled up since.
bool EventQueue::lookAgainAtLeftovers() {
    std::erase_if(ready, [this](const Ticket& ticket) { return table.find(ticket) == nullptr; });
    if (ready.empty()) return true;
    polled.clear();
    for (const Ticket& ticket : ready)
        polled.push_back({.fd = ticket.fd, .events = pollEvents(ticket), .revents = 0});
    if (!pollNow(polled)) return false;
    size_t kept = 0;
    for (size_t i = 0; i < ready.size(); ++i) {
        Filter* filter = table.find(ready[i]);
        filter->seen = static_cast<uint16_t>(polled[i].revents);
        filter->queued = filter->seen != 0;
        table.find(ready[i].fd)->recordsOnTrust = 0;  // epoll tells files apart, poll does not
        if (filter->queued) ready[kept++] = ready[i];
    }
    ready.resize(kept);
    return true;
}

void EventQueue::wakeDatagrams() noexcept {
    for (const int fd : dozingDatagrams)
        if (Descriptor* descriptor = table.find(fd); descriptor && descriptor->dozing) {
            descriptor->dozing = false;
            table.watch(*descriptor);
        }
    dozingDatagrams.clear();
}

// At its end a regular file is silent; the null device has ended.
void EventQueue::lookAtFiles() {
    std::erase_if(files, [this](int fd) {
        const Descriptor* descriptor = table.findUnchanged(fd);
        return descriptor == nullptr || !isAlwaysReady(descriptor->kind);
    });
    for (const int fd : files) {
        Descriptor& descriptor = *table.find(fd);
        Filter& read = descriptor.read;
        Filter& write = descriptor.write;
        const bool ended = descriptor.kind == DescriptorKind::NullDevice;
        if (read.present && (ended || readableBytes(fd, descriptor.kind).value_or(0) > 0))
            enqueue(read, {.fd = fd, .filter = EVFILT_READ, .serial = read.serial},
                    ended ? EPOLLIN | EPOLLRDHUP : EPOLLIN);
        if (write.present)
            enqueue(write, {.fd = fd, .filter = EVFILT_WRITE, .serial = write.serial}, EPOLLOUT);
    }
}

void EventQueue::enqueue(Filter& filter, const Ticket& ticket, uint32_t seen) {
    filter.seen = seen;
    if (filter.queued) return;
    ready.push_back(ticket);
    filter.queued = true;
}

// Delivering

size_t EventQueue::deliver(std::span<struct kevent> room) noexcept {
    timersFirst = !timersFirst;
    size_t count = timersFirst ? deliverTimers(room) : 0;
    count += deliverReady(room.subspan(count));
    if (!timersFirst) count += deliverTimers(room.subspan(count));
    return count;
}

size_t EventQueue::deliverReady(std::span<struct kevent> room) noexcept {
    size_t taken = 0;
    size_t count = 0;
    while (taken < ready.size() && count < room.size())
        if (deliverOne(ready[taken++], room[count])) ++count;
    ready.erase(ready.begin(), ready.begin() + static_cast<std::ptrdiff_t>(taken));
    return count;
}

size_t EventQueue::deliverTimers(std::span<struct kevent> room) noexcept {
    const Nanoseconds now = TimerSet::now();
    size_t count = 0;
    while (count < room.size() && timers.takeDue(now, room[count]))
        ++count;
    return count;
}

bool EventQueue::deliverOne(const Ticket& ticket, struct kevent& record) noexcept {
    Filter* filter = table.find(ticket);
    if (!filter) return false;
    filter->queued = false;
    Descriptor* descriptor = table.find(ticket.fd);
    EV_SET(&record, ticket.fd, ticket.filter, filter->oneShot ? EV_ONESHOT : 0, 0, 0,
           filter->udata);
    bool isReady = fillOnTrust(*descriptor, ticket, record);
    if (!isReady) {
        const bool isClosed = (filter->seen & POLLNVAL) != 0;
        descriptor = table.findUnchanged(ticket.fd);
        if (!descriptor) return isClosed && isOfThisCall(ticket) && failAddition(record);
        isReady = fillProved(*descriptor, ticket, record);
    }
    if (isReady && (record.flags & EV_EOF) == 0) descriptor->lastRecord = calls;
    const bool wasProbed = filter->probed;
    filter->probed = wasProbed && isReady;
    descriptor->dozing = !isReady;
    if (descriptor->dozing && descriptor->kind == DescriptorKind::OtherSocket)
        addOnce(dozingDatagrams, descriptor->fd);
    if (table.watch(*descriptor) != 0) {
        filter->probed = wasProbed;
        isRefused = true;
    }
    if (isReady && filter->oneShot) removeFilter(*descriptor, *filter);
    return isReady;
}

// The addition was trusted to be for an open descriptor.
bool EventQueue::failAddition(struct kevent& record) noexcept {
    record.flags = EV_ADD | EV_ERROR;
    record.data = EBADF;
    return true;
}

// Whatever is not plain bytes in a socket, or plain room for a filter that this call has added, is
// left to be proved. False then.
bool EventQueue::fillOnTrust(Descriptor& descriptor, const Ticket& ticket,
                             struct kevent& record) const noexcept {
    if (ticket.filter == EVFILT_WRITE) {
        if (descriptor.leastRoom == 0 || descriptor.write.seen != EPOLLOUT || !isOfThisCall(ticket))
            return false;
        record.data = descriptor.writesMuch ? writableBytes(descriptor.fd, descriptor.kind)
                                            : descriptor.leastRoom;
        return true;
    }
    if (!isStreamSocket(descriptor.kind)) return false;
    const bool hasPlainBytes = (descriptor.read.seen & ~uint32_t{EPOLLOUT}) == EPOLLIN;
    if (!hasPlainBytes || descriptor.hadOutOfBand || descriptor.recordsOnTrust == 0) return false;
    --descriptor.recordsOnTrust;
    record.data = readableBytes(descriptor.fd, descriptor.kind).value_or(0);
    return record.data > 0;
}

// A write filter that is still there after its first record had more to write than the least room.
bool EventQueue::fillProved(Descriptor& descriptor, const Ticket& ticket,
                            struct kevent& record) noexcept {
    if (ticket.filter == EVFILT_WRITE) {
        descriptor.writesMuch = !isOfThisCall(ticket);
        return fillWriteRecord(descriptor, record);
    }
    descriptor.recordsOnTrust = kRecordsOnTrust;
    descriptor.writesMuch = false;
    return fillReadRecord(descriptor, record);
}

}  // namespace epollqueue
