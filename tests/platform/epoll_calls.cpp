#include "tests/platform/epoll_calls.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

std::atomic<int> epollCtlCalls{0};
std::atomic<int> failingQueueCreations{0};

// They take the place of the C library's functions in this executable.

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int epoll_ctl(int epollFd, int operation, int fd, struct epoll_event* event) noexcept {
    ++epollCtlCalls;
    return static_cast<int>(syscall(SYS_epoll_ctl, epollFd, operation, fd, event));
}

extern "C" int epoll_create1(int flags) noexcept {
    if (failingQueueCreations > 0) {
        --failingQueueCreations;
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_create1, flags));
}
