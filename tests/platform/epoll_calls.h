// The calls of epoll that the test's process makes: counted, or failing on demand.
#pragma once

#include <atomic>

extern std::atomic<int> epollCtlCalls;

// How many of the next calls of epoll_create1 fail, with EMFILE.
extern std::atomic<int> failingQueueCreations;
