#include "tests/support/outgoing_bytes.h"

#include <sys/socket.h>

int outgoingBytes(int sock) {
    int count = 0;
    socklen_t length = sizeof count;
    return getsockopt(sock, SOL_SOCKET, SO_NWRITE, &count, &length) == 0 ? count : -1;
}
