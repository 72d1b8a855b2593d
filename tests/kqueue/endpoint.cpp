#include "tests/kqueue/endpoint.h"

#include <netinet/in.h>
#include <sys/un.h>

#include "kqueue/HXKQueueTCPClient.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/support/descriptors.h"

int Endpoint::connectedSocket() const {
    const int sock = makeSocket(address.ss_family, SOCK_STREAM);
    EXPECT_EQ(connect(sock, asSockaddr(address), length), 0);
    return sock;
}

UnixEndpoint::UnixEndpoint() {
    auto* unixAddress = reinterpret_cast<struct sockaddr_un*>(&address);
    unixAddress->sun_family = AF_UNIX;
    path.copy(unixAddress->sun_path, sizeof unixAddress->sun_path - 1);
    length = sizeof *unixAddress;
}

std::shared_ptr<HXKQueueEventProtocol> UnixEndpoint::listenOn(HXKQueue& loop) const {
    return loop.createUnixServer(path.c_str(), 0600);
}

std::shared_ptr<HXKQueueEventProtocol> UnixEndpoint::connectOn(HXKQueue& loop) const {
    return loop.createUnixClient(path.c_str());
}

TcpEndpoint::TcpEndpoint() {
    address = port.address();
    length = sizeof(struct sockaddr_in);
}

std::shared_ptr<HXKQueueEventProtocol> TcpEndpoint::listenOn(HXKQueue& loop) const {
    return loop.createTCPServer(asSockaddr(address));
}

std::shared_ptr<HXKQueueEventProtocol> TcpEndpoint::connectOn(HXKQueue& loop) const {
    return loop.createTCPClient(asSockaddr(address));
}
