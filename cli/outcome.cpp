#include "cli/outcome.h"

#include <cstdio>
#include <cstdlib>

void printStatusAndExit(int status, const char* subject, const char* verb) {
    switch (status) {
        case kExitNotFound:
            std::fprintf(stderr, "%s has not been found.\n", subject);
            break;
        case kExitAlready:
            std::fprintf(stderr, "%s has been already %s.\n", subject, verb);
            break;
        case kExitInternalError:
            std::fputs("Internal error.\n", stderr);
            break;
        default:
            break;
    }
    std::exit(status);
}

void failWith(const char* line, ExitStatus status) {
    std::fputs(line, stderr);
    std::exit(status);
}
