#include "tests/platform/epoll_calls.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<int> epollCtlCalls{0};

// Takes the place of the C library's function in this executable.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int epoll_ctl(int epollFd, int operation, int fd, struct epoll_event* event) noexcept {
    ++epollCtlCalls;
    return static_cast<int>(syscall(SYS_epoll_ctl, epollFd, operation, fd, event));
}
