#include "kqueue/HXKQueueTCPClient.h"

#include <new>
#include <utility>

std::shared_ptr<HXKQueueTCPClient> HXKQueueTCPClient::initWithParent(
    std::weak_ptr<HXKQueue> parent, std::shared_ptr<const LogHandle> logger) {
    try {
        return std::make_shared<HXKQueueTCPClient>(Private(), -1, true, false, std::move(parent),
                                                   std::move(logger));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool HXKQueueTCPClient::connectToAddress(const struct sockaddr* address) {
    sock = socket(address->sa_family, SOCK_STREAM, 0);
    return sock != -1 && connectTo(address);
}
