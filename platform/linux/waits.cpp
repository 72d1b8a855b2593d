#include "platform/linux/waits.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

namespace epollqueue {

namespace {

// Far beyond any uptime, and far from overflowing when added to the clock.
constexpr int64_t kLongestWaitSeconds = 1'000'000'000;

struct timespec toTimespec(Nanoseconds time) {
    return {.tv_sec = time / kPerSecond, .tv_nsec = time % kPerSecond};
}

const struct timespec* orForever(const std::optional<Nanoseconds>& timeout,
                                 struct timespec& storage) {
    if (!timeout) return nullptr;
    storage = toTimespec(*timeout);
    return &storage;
}

}  // namespace

bool isValid(const struct timespec& time) noexcept {
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kPerSecond;
}

Nanoseconds toNanoseconds(const struct timespec& time) noexcept {
    return std::min<int64_t>(time.tv_sec, kLongestWaitSeconds) * kPerSecond + time.tv_nsec;
}

// epoll_pwait2(2) came with Linux 5.11 and is missing from some C libraries and emulators.
// epoll_wait counts in milliseconds; rounding up never returns too early.
int waitOnEpoll(int epollFd, std::span<struct epoll_event> events,
                std::optional<Nanoseconds> timeout) noexcept {
    static std::atomic<bool> havePrecise{true};
    const int room = static_cast<int>(events.size());
    if (timeout == 0) return epoll_wait(epollFd, events.data(), room, 0);
    if (havePrecise) {
        struct timespec storage;
        const long count = syscall(SYS_epoll_pwait2, epollFd, events.data(), room,
                                   orForever(timeout, storage), nullptr, 0);
        if (count != -1 || errno != ENOSYS) return static_cast<int>(count);
        havePrecise = false;
    }
    const int64_t milliseconds = timeout ? (*timeout + kPerMillisecond - 1) / kPerMillisecond : -1;
    return epoll_wait(epollFd, events.data(), room,
                      static_cast<int>(std::min<int64_t>(milliseconds, INT_MAX)));
}

int waitOnPoll(std::span<struct pollfd> descriptors, std::optional<Nanoseconds> timeout) noexcept {
    struct timespec storage;
    return ppoll(descriptors.data(), descriptors.size(), orForever(timeout, storage), nullptr);
}

// poll(2) refuses more at once than the process may have open, and a descriptor may be here twice.
bool pollNow(std::span<struct pollfd> descriptors) noexcept {
    if (poll(descriptors.data(), descriptors.size(), 0) != -1) return true;
    if (errno != EINVAL || descriptors.size() < 2) return false;
    const size_t half = descriptors.size() / 2;
    return pollNow(descriptors.first(half)) && pollNow(descriptors.subspan(half));
}

void pauseWhenRefused() noexcept {
    const int error = errno;
    const struct timespec pause = toTimespec(kPerMillisecond);
    nanosleep(&pause, nullptr);
    errno = error;
}

}  // namespace epollqueue
