// The two calls of <sys/event.h>: which queue a descriptor means.
//
// A queue's descriptor is its epoll instance, so that close(2) frees all that the kernel holds for
// it. What this process holds is freed when a later kqueue() finds that the number means no epoll
// instance any more, or reuses it.

#include <sys/epoll.h>
#include <sys/event.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include "platform/linux/event_queue.h"

namespace {

using epollqueue::EventQueue;

// REQUIRES: other is open, and no part of fd. epoll_ctl(2) fails with EBADF for a number that is
// closed, with EINVAL for any other file. (Another thread may close the number at this very moment.
// The thread sanitizer calls that a race, and is told not to by this name.)
bool isEpollInstance(int fd, int other) {
    return epoll_ctl(fd, EPOLL_CTL_DEL, other, nullptr) == 0 || errno == ENOENT;
}

class Registry {
public:
    void enter(int fd) {
        auto queue = std::make_shared<EventQueue>(fd);
        const std::lock_guard guard(lock);
        std::erase_if(queues, [&](const auto& entry) { return !isEpollInstance(entry.first, fd); });
        queues[fd] = std::move(queue);
    }

    std::shared_ptr<EventQueue> find(int fd) {
        const std::lock_guard guard(lock);
        const auto queue = queues.find(fd);
        return queue == queues.end() ? nullptr : queue->second;
    }

private:
    std::mutex lock;
    std::unordered_map<int, std::shared_ptr<EventQueue>> queues;  // guarded by lock
};

// Never destroyed: exit runs destructors while an I/O thread may still be waiting.
Registry& registry() {
    static Registry& shared = *new Registry;
    return shared;
}

}  // namespace

int kqueue(void) {
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd == -1) return -1;
    try {
        registry().enter(fd);
        return fd;
    } catch (const std::bad_alloc&) {
        close(fd);
        errno = ENOMEM;
        return -1;
    }
}

int kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist,
           int nevents, const struct timespec* timeout) {
    if (nchanges < 0 || nevents < 0) {
        errno = EINVAL;
        return -1;
    }
    const std::shared_ptr<EventQueue> queue = registry().find(kq);
    if (!queue) {
        errno = EBADF;
        return -1;
    }
    return queue->exchange({changelist, static_cast<size_t>(nchanges)},
                           {eventlist, static_cast<size_t>(nevents)}, timeout);
}
