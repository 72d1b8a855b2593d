#include "kqueue/HXKQueueUnixClient.h"

#include <new>
#include <utility>

#include "platform/socket_address.h"

std::shared_ptr<HXKQueueUnixClient> HXKQueueUnixClient::initWithParent(
    std::weak_ptr<HXKQueue> parent, std::shared_ptr<const LogHandle> logger) {
    try {
        return std::make_shared<HXKQueueUnixClient>(Private(), -1, true, false, std::move(parent),
                                                    std::move(logger));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool HXKQueueUnixClient::connectToPath(const char* path) {
    sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1) return false;
    struct sockaddr_un address;
    if (!makeUnixAddress(path, address)) return false;
    return connectTo(reinterpret_cast<const struct sockaddr*>(&address));
}
