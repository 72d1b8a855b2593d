// The most memory that a process has had in use at a time, in bytes, of what the system tells of
// one that has ended. linux: counts in KiB, and the most that the process which started it had had
// in use by then counts, too. darwin: counts in bytes.
#pragma once

#include <sys/resource.h>

#include <cstddef>

[[nodiscard]] size_t peakBytes(const struct rusage& usage);
