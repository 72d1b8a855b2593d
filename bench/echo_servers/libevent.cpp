// libevent's bufferevents: the input's buffer is moved to the output.

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include "bench/echo_servers/listener.h"

namespace {

void onRead(bufferevent* connection, void* /*context*/) {
    bufferevent_write_buffer(connection, bufferevent_get_input(connection));
}

void onEnd(bufferevent* connection, short /*what*/, void* /*context*/) {
    bufferevent_free(connection);
}

void onConnection(evconnlistener* /*listener*/, evutil_socket_t sock, sockaddr* /*peer*/,
                  int /*size*/, void* base) {
    bufferevent* connection =
        bufferevent_socket_new(static_cast<event_base*>(base), sock, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(connection, onRead, nullptr, onEnd, nullptr);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
}

}  // namespace

int main(int argc, char** argv) {
    event_base* base = event_base_new();
    const int sock = listenOn(endpointFrom(argc, argv), false);
    if (evconnlistener_new(base, onConnection, base, LEV_OPT_CLOSE_ON_FREE, 0, sock) == nullptr)
        return 1;
    sayReady();
    return event_base_dispatch(base);
}
