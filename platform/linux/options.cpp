#include "platform/options.h"

#include <unistd.h>

#include <cassert>
#include <cstring>

// The leading "+" asks glibc for the POSIX rule; musl skips it.
int posixGetopt(int count, char* const arguments[], const char* options) {
    char posix[32] = "+";
    assert(std::strlen(options) <= sizeof posix - 2);
    std::strncat(posix, options, sizeof posix - 2);
    return getopt(count, arguments, posix);
}
