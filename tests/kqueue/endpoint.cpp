#include "tests/kqueue/endpoint.h"

#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include "kqueue/HXKQueueTCPClient.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"

UnixEndpoint::UnixEndpoint() {
    auto* unixAddress = reinterpret_cast<struct sockaddr_un*>(&address);
    unixAddress->sun_family = AF_UNIX;
    path.copy(unixAddress->sun_path, sizeof unixAddress->sun_path - 1);
}

std::shared_ptr<HXKQueueEventProtocol> UnixEndpoint::listenOn(HXKQueue& loop) const {
    return loop.createUnixServer(path.c_str(), 0600);
}

std::shared_ptr<HXKQueueEventProtocol> UnixEndpoint::connectOn(HXKQueue& loop) const {
    return loop.createUnixClient(path.c_str());
}

TcpEndpoint::TcpEndpoint() : holder(socket(AF_INET, SOCK_STREAM, 0)) {
    const int on = 1;
    setsockopt(holder, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    address = loopback(AF_INET, 0);
    EXPECT_EQ(bind(holder, asSockaddr(address), sizeof(struct sockaddr_in)), 0);
    socklen_t length = sizeof address;
    getsockname(holder, reinterpret_cast<struct sockaddr*>(&address), &length);
}

TcpEndpoint::~TcpEndpoint() {
    close(holder);
}

std::shared_ptr<HXKQueueEventProtocol> TcpEndpoint::listenOn(HXKQueue& loop) const {
    return loop.createTCPServer(asSockaddr(address));
}

std::shared_ptr<HXKQueueEventProtocol> TcpEndpoint::connectOn(HXKQueue& loop) const {
    return loop.createTCPClient(asSockaddr(address));
}
