// The most memory that a process has had in use at a time, in bytes, of what the system tells of
// one that has ended. linux: counts in KiB, and counts the most that the process which started it
// had had in use by then, too, so that a peak below that is not to be seen. darwin: counts in
// bytes.
#pragma once

#include <sys/resource.h>

#include <cstddef>

[[nodiscard]] size_t peakBytes(const struct rusage& usage);
