#include "tests/support/outgoing_bytes.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <stdexcept>

std::optional<int> outgoingBytes(int sock) {
    int count = 0;
    if (ioctl(sock, SIOCOUTQ, &count) != 0) throw std::runtime_error("not a stream socket");
    return count;
}
