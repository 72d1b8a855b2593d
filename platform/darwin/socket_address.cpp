#include "platform/socket_address.h"

#include <cstring>

static_assert(sizeof(sockaddr_un::sun_path) == kMaxUnixPath + 1);
static_assert(sizeof(sockaddr_un) == 106);

socklen_t socketAddressLength(const struct sockaddr* address) noexcept {
    return address->sa_len;
}

bool makeUnixAddress(const char* path, struct sockaddr_un& out) noexcept {
    const size_t length = std::strlen(path);
    if (length == 0 || length > kMaxUnixPath) return false;
    out = {};
    out.sun_len = sizeof out;
    out.sun_family = AF_UNIX;
    std::memcpy(out.sun_path, path, length);
    return true;
}
