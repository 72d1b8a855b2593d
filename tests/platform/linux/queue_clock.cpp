#include <ctime>

#include "tests/platform/kernel_queue.h"

int64_t now() {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000 * kMillisecond + time.tv_nsec;
}
