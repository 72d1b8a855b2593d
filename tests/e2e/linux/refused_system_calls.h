// Programs run with a system call that the kernel refuses, to see how they bear it.
#pragma once

#include <cstdint>

#include "tests/support/captured_run.h"

// Every call with this number fails with error.
[[nodiscard]] Outcome runRefusing(long systemCall, int error,
                                  const std::vector<std::string>& arguments);

// Threads cannot be made; processes can.
[[nodiscard]] Outcome runRefusingThreads(const std::vector<std::string>& arguments);

// Of the calls with a number that are made once the program has asked for its event queue, with
// which its work begins, the nth fails with error; 1 is the first.
struct RefusedCall {
    long systemCall = -1;
    int error = 0;
    uint64_t nth = 1;
};
struct RefusedRun {
    Outcome outcome;
    bool happened = false;  // there were so many calls
};

// Kills a program that is still running after twenty seconds.
[[nodiscard]] RefusedRun runRefusingOnce(const RefusedCall& call,
                                         const std::vector<std::string>& arguments);
