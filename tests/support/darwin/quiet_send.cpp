#include "tests/support/quiet_send.h"

#include <fcntl.h>

ssize_t sendQuietly(int sock, std::string_view bytes, int flags) {
    fcntl(sock, F_SETNOSIGPIPE, 1);
    return send(sock, bytes.data(), bytes.size(), flags);
}

ssize_t sendQuietly(int sock, const struct msghdr& message) {
    fcntl(sock, F_SETNOSIGPIPE, 1);
    return sendmsg(sock, &message, 0);
}
