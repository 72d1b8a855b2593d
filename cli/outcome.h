// How a command ends that has not succeeded.
#pragma once

#include "cli/exit_status.h"

// Ends the process with the status, and says on standard error what it means for the subject ("The
// server"): not found, already what the verb says ("added"), or an internal error. Other statuses
// say nothing. subject and verb may be null where they are not shown.
[[noreturn]] void printStatusAndExit(int status, const char* subject, const char* verb);

// Writes the line to standard error and ends the process with the status.
[[noreturn]] void failWith(const char* line, ExitStatus status);
