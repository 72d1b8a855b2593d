// What exit_that_throws.h makes of the end of the process.
#pragma once

struct ProcessEnd {
    int status;
};
