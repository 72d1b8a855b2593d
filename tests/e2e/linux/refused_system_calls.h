// Programs run with a system call that the kernel refuses, to see how they bear it.
#pragma once

#include "tests/support/captured_run.h"

// Every call with this number fails with error.
[[nodiscard]] Outcome runRefusing(long systemCall, int error,
                                  const std::vector<std::string>& arguments);

// Threads cannot be made; processes can.
[[nodiscard]] Outcome runRefusingThreads(const std::vector<std::string>& arguments);
