#include "tests/support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {-1, -1};
    return ends;
}

int makeSocket(int family, int type) {
    return socket(family, type | SOCK_CLOEXEC, 0);
}

int acceptFrom(int listener) {
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}
