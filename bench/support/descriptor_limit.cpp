#include "bench/support/descriptor_limit.h"

#include <sys/resource.h>

#include "bench/support/program.h"

size_t allowManyDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) fail("getrlimit");
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) fail("setrlimit");
    return limit.rlim_max;
}
