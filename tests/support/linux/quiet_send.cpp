#include "tests/support/quiet_send.h"

#include <sys/socket.h>

ssize_t sendQuietly(int sock, std::string_view bytes, int flags) {
    return send(sock, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
}
