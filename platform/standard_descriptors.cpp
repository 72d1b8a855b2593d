#include "platform/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

// The lowest free number is handed out (open(2)). REQUIRES: those below number are taken.
bool occupy(int number, int mode) noexcept {
    return fcntl(number, F_GETFD) != -1 || open("/dev/null", mode) == number;
}

}  // namespace

bool occupyStandardDescriptors() noexcept {
    return occupy(STDIN_FILENO, O_WRONLY) && occupy(STDOUT_FILENO, O_RDONLY) &&
           occupy(STDERR_FILENO, O_RDONLY);
}
