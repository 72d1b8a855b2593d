#include "platform/broken_pipe.h"

#include <fcntl.h>

void preventBrokenPipeSignal(int fd) noexcept {
    fcntl(fd, F_SETNOSIGPIPE, 1);
}
