// The most memory that a process has had in use at a time, in bytes, of what the system tells of
// one that has ended. linux: counts in KiB; what the process that started it had in use at that
// moment counts, too. darwin: counts in bytes.
#pragma once

#include <sys/resource.h>

#include <cstddef>

[[nodiscard]] size_t peakBytes(const struct rusage& usage);
