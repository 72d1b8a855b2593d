#include "tests/support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int marked(int fd) {
    if (fd != -1) fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

}  // namespace

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) return {-1, -1};
    return {marked(ends[0]), marked(ends[1])};
}

int makeSocket(int family, int type) {
    return marked(socket(family, type, 0));
}

int acceptFrom(int listener) {
    return marked(accept(listener, nullptr, nullptr));
}
