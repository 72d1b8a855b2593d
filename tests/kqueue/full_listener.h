// A listener of TCP over IPv4 on loopback whose backlog is full, so that a connect to it stays
// pending. (macOS lets 128 connections wait where none is asked for.)
#pragma once

#include <sys/socket.h>

#include "tests/kqueue/loop_fixture.h"

class FullListener {
public:
    FullListener();
    ~FullListener();
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    [[nodiscard]] const struct sockaddr_storage& address() const { return own; }

    // Makes room, and waits for the connect that was pending to take it, with the kernel's next
    // attempt after a second. The descriptor is the caller's.
    [[nodiscard]] int acceptPending() const;

    // The kernel's next attempt is refused.
    void endListening();

private:
    struct sockaddr_storage own = loopback(AF_INET, 0);
    int listener;  // -1: it listens no more
    const int filler;
};
