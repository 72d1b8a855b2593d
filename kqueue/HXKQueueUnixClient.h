// A stream socket that connects to a Unix-domain path. Made by HXKQueue::createUnixClient.
#pragma once

#include "kqueue/HXKQueueStreamSocket.h"

class HXKQueueUnixClient final : public HXKQueueStreamSocket {
public:
    using HXKQueueStreamSocket::HXKQueueStreamSocket;

    // Null when memory is short. No descriptor yet.
    [[nodiscard]] static std::shared_ptr<HXKQueueUnixClient> initWithParent(
        std::weak_ptr<HXKQueue> parent, std::shared_ptr<const LogHandle> logger);

    // False when the path is too long or the connect fails at once; stop then closes what was
    // opened. Before enableOnData, on the thread that made the client.
    bool connectToPath(const char* path);
};
