// Waiting for readiness, by poll and epoll, with timeouts of any precision. Internal to
// platform/linux.
//
// Threads    any.
// Errors     a call that fails leaves errno as the kernel set it.
#pragma once

#include <poll.h>
#include <sys/epoll.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <span>

#include "platform/linux/timer_set.h"

namespace epollqueue {

using Nanoseconds = TimerSet::Nanoseconds;

inline constexpr int64_t kPerSecond = 1'000'000'000;
inline constexpr int64_t kPerMillisecond = 1'000'000;

[[nodiscard]] bool isValid(const struct timespec& time) noexcept;

// What is longer than any uptime counts as about 30 years. REQUIRES: isValid(time).
[[nodiscard]] Nanoseconds toNanoseconds(const struct timespec& time) noexcept;

// The number of events, or -1. Without a timeout they wait for ever.
[[nodiscard]] int waitOnEpoll(int epollFd, std::span<struct epoll_event> events,
                              std::optional<Nanoseconds> timeout) noexcept;
[[nodiscard]] int waitOnPoll(std::span<struct pollfd> descriptors,
                             std::optional<Nanoseconds> timeout) noexcept;

// Looks at any number of descriptors, each of which may be there more than once. False on failure.
[[nodiscard]] bool pollNow(std::span<struct pollfd> descriptors) noexcept;

// Keeps a wait that would find the same again and again from taking all the processor's time, for a
// millisecond. Leaves errno alone.
void pauseWhenRefused() noexcept;

}  // namespace epollqueue
