#pragma once

#include <cstdint>
#include <ctime>

// The processor time of this thread, in nanoseconds.
inline int64_t processorTime() {
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}
