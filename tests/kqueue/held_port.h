// A port of TCP over IPv4 on loopback that nobody else is given: a socket of its own is bound to
// it, and never listens, until the end. A server of the loop shares the port with it.
#pragma once

#include <sys/socket.h>

#include "tests/kqueue/loop_fixture.h"

class HeldPort {
public:
    HeldPort();
    ~HeldPort();
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;

    [[nodiscard]] const struct sockaddr_storage& address() const { return held; }

private:
    struct sockaddr_storage held = loopback(AF_INET, 0);
    const int holder;
};
