#include "tests/kqueue/wall_clock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace {

constexpr time_t kHour = 3'600;

std::atomic<size_t> looks = 0;

}  // namespace

size_t looksAtTheWallClock() noexcept {
    return looks;
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" {

int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)
        now->tv_sec -= kHour * static_cast<time_t>(++looks);
    return result;
}

int gettimeofday(struct timeval* now, void* /*zone*/) noexcept {
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    *now = {.tv_sec = precise.tv_sec, .tv_usec = precise.tv_nsec / 1'000};
    return 0;
}

time_t time(time_t* now) noexcept {
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now != nullptr) *now = precise.tv_sec;
    return precise.tv_sec;
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
