// What a listening server passes as the bytes of HXKQueueEventData. Valid during the block only;
// a block that returns true takes over sock and has to close it (createStreamSocket can).
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "platform/peer_credentials.h"

struct HXKQueueAcceptedConnection {
    int32_t sock;  // connected, in blocking mode
    union {
        // HXKQueueTCPServer: the peer's address as accept(2) filled it; what lies beyond the
        // address's own length is undefined.
        struct sockaddr_storage peerAddr;
        // HXKQueueUnixServer: who connected.
        PeerCredentials peer;
    };
};

static_assert(sizeof(HXKQueueAcceptedConnection) == 136);
