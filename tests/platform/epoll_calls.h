// Counts the calls that the test's process makes.
#pragma once

#include <atomic>

extern std::atomic<int> epollCtlCalls;
