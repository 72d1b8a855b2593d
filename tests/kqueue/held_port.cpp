#include "tests/kqueue/held_port.h"

#include <netinet/in.h>
#include <unistd.h>

HeldPort::HeldPort() : holder(socket(AF_INET, SOCK_STREAM, 0)) {
    const int on = 1;
    socklen_t length = sizeof(struct sockaddr_in);
    EXPECT_EQ(setsockopt(holder, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
    EXPECT_EQ(setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    EXPECT_EQ(bind(holder, asSockaddr(held), length), 0);
    EXPECT_EQ(getsockname(holder, reinterpret_cast<struct sockaddr*>(&held), &length), 0);
}

HeldPort::~HeldPort() {
    close(holder);
}
