#include "tests/support/outgoing_bytes.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

int outgoingBytes(int sock) {
    int count = 0;
    return ioctl(sock, SIOCOUTQ, &count) == 0 ? count : -1;
}
