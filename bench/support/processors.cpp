#include "bench/support/processors.h"

#include <sched.h>

#include <vector>

#include "bench/support/program.h"

namespace {

std::vector<size_t> allowedProcessors() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) fail("sched_getaffinity");
    std::vector<size_t> processors;
    for (size_t processor = 0; processor < CPU_SETSIZE; ++processor)
        if (CPU_ISSET(processor, &allowed)) processors.push_back(processor);
    return processors;
}

}  // namespace

void keepToProcessor(size_t number) {
    static const std::vector<size_t> processors = allowedProcessors();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processors[number % processors.size()], &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) fail("sched_setaffinity");
}
