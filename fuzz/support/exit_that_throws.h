// Included in front of every source of the front end, so that what ends the process throws instead
// and the fuzzer goes on. An exception and no longjmp, so that what the command holds is given
// back.
#pragma once

#include <cstdlib>

#include "fuzz/support/process_end.h"

// For std::exit. No other program has it.
namespace std {  // NOLINT(cert-dcl58-cpp)
[[noreturn]] inline void endProcess(int status) {
    throw ProcessEnd{status};
}
}  // namespace std

#define exit endProcess
