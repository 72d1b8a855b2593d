#include "tests/support/peak_memory.h"

size_t peakBytes(const struct rusage& usage) {
    return static_cast<size_t>(usage.ru_maxrss);
}
