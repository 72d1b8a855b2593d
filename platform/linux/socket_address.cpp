#include "platform/socket_address.h"

#include <netinet/in.h>

#include <cstring>

static_assert(sizeof(sockaddr_un::sun_path) > kMaxUnixPath);

socklen_t socketAddressLength(const struct sockaddr* address) noexcept {
    switch (address->sa_family) {
        case AF_INET:
            return sizeof(sockaddr_in);
        case AF_INET6:
            return sizeof(sockaddr_in6);
        case AF_UNIX:
            return sizeof(sockaddr_un);
        default:
            return 0;
    }
}

bool makeUnixAddress(const char* path, struct sockaddr_un& out) noexcept {
    const size_t length = std::strlen(path);
    if (length == 0 || length > kMaxUnixPath) return false;
    out = {};
    out.sun_family = AF_UNIX;
    std::memcpy(out.sun_path, path, length);
    return true;
}
