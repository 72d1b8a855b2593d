#include "fuzz/support/oracle.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

void refute(std::string_view what) {
    const std::string line = "does not hold: " + std::string(what) + "\n";
    if (write(STDERR_FILENO, line.data(), line.size()) == -1) std::perror("write");
    std::abort();
}
