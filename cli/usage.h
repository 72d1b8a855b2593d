// The usage text, and the name under which it shows the program.
#pragma once

#include "platform/base_name.h"

// The base name of the program's path, empty until it is known. Written once, before anything else
// runs.
extern char programName[kBaseNameSize];

// Prints the text, to standard output if status is 0 and to standard error otherwise, and ends the
// process with that status.
[[noreturn]] void usage(int status);
