#include "platform/peer_credentials.h"

#include <sys/socket.h>

bool peerCredentials(int fd, PeerCredentials& out) noexcept {
    struct ucred peer;  // only declared for _GNU_SOURCE, which g++ and clang++ define
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    out = {.uid = peer.uid, .gid = peer.gid, .pid = peer.pid};
    return true;
}
