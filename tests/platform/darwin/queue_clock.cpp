#include <ctime>

#include "tests/platform/kernel_queue.h"

// mach_absolute_time(3) in nanoseconds. CLOCK_MONOTONIC is another clock here, which is adjusted.
int64_t now() {
    struct timespec time;
    clock_gettime(CLOCK_UPTIME_RAW, &time);
    return time.tv_sec * 1'000 * kMillisecond + time.tv_nsec;
}
