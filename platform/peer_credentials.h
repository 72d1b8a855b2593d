// Who is at the other end of a connected Unix socket.
// macOS: getpeereid, LOCAL_PEERPID. Linux: SO_PEERCRED, which is as of the peer's connect(2).
#pragma once

#include <sys/types.h>

struct PeerCredentials {
    uid_t uid;  // effective
    gid_t gid;  // effective
    pid_t pid;
};

// On false, out is untouched and errno says why. Any thread.
[[nodiscard]] bool peerCredentials(int fd, PeerCredentials& out) noexcept;
