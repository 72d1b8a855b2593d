// The calls of epoll that the test's process makes: counted, or failing on demand.
#pragma once

#include <atomic>

extern std::atomic<int> epollCtlCalls;

// Calls that only ask about a descriptor: fstat, ioctl, getsockopt.
extern std::atomic<int> questions;

// How many of the next calls of epoll_create1 fail, with EMFILE.
extern std::atomic<int> failingQueueCreations;

// While it is set, epoll takes no further descriptor, as when the user watches too many: ENOSPC.
extern std::atomic<bool> isEpollFull;

// While it is set, a count of readable bytes is refused, as by an emulator that does not know it.
extern std::atomic<bool> isCountRefused;

// While it is set, the kernel has no memory to tell what a descriptor is.
extern std::atomic<bool> isStatusUnknown;

// When a count of readable bytes is asked for, those of this descriptor are taken away just before,
// once; -1 for none.
extern std::atomic<int> readAwayBeforeCount;

// While it is set, SO_MEMINFO is answered with its first number alone, as an emulator does.
extern std::atomic<bool> isMemoryInfoCut;
