// The process's limit of open descriptors.
#pragma once

#include <sys/resource.h>

#include <string>

// Raises the limit as far as needed. The empty string, or why it cannot be had.
[[nodiscard]] inline std::string raiseDescriptorLimit(rlim_t needed) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed) return {};
    const struct rlimit raised = {.rlim_cur = needed,
                                  .rlim_max = limit.rlim_max < needed ? needed : limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) return {};
    return "needs " + std::to_string(needed) + " descriptors, the machine allows " +
           std::to_string(limit.rlim_max);
}
