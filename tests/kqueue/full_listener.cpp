#include "tests/kqueue/full_listener.h"

#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <utility>

FullListener::FullListener()
    : listener(socket(AF_INET, SOCK_STREAM, 0)), filler(socket(AF_INET, SOCK_STREAM, 0)) {
    socklen_t length = sizeof(struct sockaddr_in);
    EXPECT_EQ(bind(listener, asSockaddr(own), length), 0);
    EXPECT_EQ(listen(listener, 0), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<struct sockaddr*>(&own), &length), 0);
    EXPECT_EQ(connect(filler, asSockaddr(own), length), 0);
    struct pollfd waiting = {.fd = listener, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&waiting, 1, -1), 1);
}

FullListener::~FullListener() {
    endListening();
    close(filler);
}

int FullListener::acceptPending() const {
    close(accept(listener, nullptr, nullptr));  // the filler's
    return accept(listener, nullptr, nullptr);
}

void FullListener::endListening() {
    if (listener != -1) close(std::exchange(listener, -1));
}
