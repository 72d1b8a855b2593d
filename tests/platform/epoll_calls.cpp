#include "tests/platform/epoll_calls.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>

std::atomic<int> epollCtlCalls{0};
std::atomic<int> questions{0};
std::atomic<int> failingQueueCreations{0};
std::atomic<bool> isEpollFull{false};
std::atomic<bool> isCountRefused{false};
std::atomic<bool> isStatusUnknown{false};
std::atomic<int> readAwayBeforeCount{-1};
std::atomic<bool> isMemoryInfoCut{false};

// They take the place of the C library's functions in this executable.

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int epoll_ctl(int epollFd, int operation, int fd, struct epoll_event* event) noexcept {
    ++epollCtlCalls;
    if (isEpollFull && operation == EPOLL_CTL_ADD) {
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, epollFd, operation, fd, event));
}

// NOLINTNEXTLINE(cert-dcl50-cpp,readability-inconsistent-declaration-parameter-name)
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    ++questions;
    if (request == FIONREAD && isCountRefused) {
        errno = ENOTTY;
        return -1;
    }
    if (request == FIONREAD) {
        std::array<char, 64> taken{};
        const int thief = readAwayBeforeCount.exchange(-1);
        if (thief != -1 && read(thief, taken.data(), taken.size()) == -1) return -1;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int epoll_create1(int flags) noexcept {
    if (failingQueueCreations > 0) {
        --failingQueueCreations;
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_create1, flags));
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
    ++questions;
    if (isMemoryInfoCut && level == SOL_SOCKET && name == SO_MEMINFO)
        *length = std::min<socklen_t>(*length, sizeof(uint32_t));
    return static_cast<int>(syscall(SYS_getsockopt, fd, level, name, value, length));
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int fstat(int fd, struct stat* status) noexcept {
    ++questions;
    if (isStatusUnknown) {
        errno = ENOMEM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_newfstatat, fd, "", status, AT_EMPTY_PATH));
}
