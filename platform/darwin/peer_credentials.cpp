#include "platform/peer_credentials.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static_assert(SOL_LOCAL == 0 && LOCAL_PEERPID == 2);

bool peerCredentials(int fd, PeerCredentials& out) noexcept {
    PeerCredentials peer{};
    socklen_t length = sizeof peer.pid;
    if (getpeereid(fd, &peer.uid, &peer.gid) != 0) return false;
    if (getsockopt(fd, SOL_LOCAL, LOCAL_PEERPID, &peer.pid, &length) != 0) return false;
    out = peer;
    return true;
}
