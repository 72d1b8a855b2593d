// A stream socket that connects to an Internet address. Made by HXKQueue::createTCPClient.
#pragma once

#include "kqueue/HXKQueueStreamSocket.h"

class HXKQueueTCPClient final : public HXKQueueStreamSocket {
public:
    using HXKQueueStreamSocket::HXKQueueStreamSocket;

    // Null when memory is short. No descriptor yet.
    [[nodiscard]] static std::shared_ptr<HXKQueueTCPClient> initWithParent(
        std::weak_ptr<HXKQueue> parent, std::shared_ptr<const LogHandle> logger);

    // False when the connect fails at once; stop then closes what was opened. Before
    // enableOnData, on the thread that made the client.
    bool connectToAddress(const struct sockaddr* address);
};
