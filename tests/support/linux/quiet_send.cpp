#include "tests/support/quiet_send.h"

ssize_t sendQuietly(int sock, std::string_view bytes, int flags) {
    return send(sock, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
}

ssize_t sendQuietly(int sock, const struct msghdr& message) {
    return sendmsg(sock, &message, MSG_NOSIGNAL);
}
