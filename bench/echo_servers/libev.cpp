// libev gives readiness and no more: reading and writing as in the server by hand.

#include <ev.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "bench/echo_servers/listener.h"

namespace {

struct Connection {
    ev_io io;  // first, so that its address is the connection's
    std::vector<char> unsent;
};

char buffer[kReadSize];

void waitFor(struct ev_loop* loop, Connection& connection, int events) {
    ev_io_stop(loop, &connection.io);
    ev_io_set(&connection.io, connection.io.fd, events);
    ev_io_start(loop, &connection.io);
}

bool echo(struct ev_loop* loop, Connection& connection) {
    const ssize_t count = read(connection.io.fd, buffer, sizeof buffer);
    if (count <= 0) return count == -1 && errno == EAGAIN;
    const ssize_t sent = write(connection.io.fd, buffer, static_cast<size_t>(count));
    if (sent == -1 && errno != EAGAIN) return false;
    if (sent == count) return true;
    connection.unsent.assign(buffer + (sent > 0 ? sent : 0), buffer + count);
    waitFor(loop, connection, EV_WRITE);
    return true;
}

bool sendRest(struct ev_loop* loop, Connection& connection) {
    auto& unsent = connection.unsent;
    const ssize_t sent = write(connection.io.fd, unsent.data(), unsent.size());
    if (sent == -1) return errno == EAGAIN;
    unsent.erase(unsent.begin(), unsent.begin() + sent);
    if (unsent.empty()) waitFor(loop, connection, EV_READ);
    return true;
}

void onReady(struct ev_loop* loop, ev_io* io, int /*events*/) {
    auto* connection = reinterpret_cast<Connection*>(io);
    if (connection->unsent.empty() ? echo(loop, *connection) : sendRest(loop, *connection)) return;
    ev_io_stop(loop, io);
    close(io->fd);
    delete connection;
}

void onConnection(struct ev_loop* loop, ev_io* listener, int /*events*/) {
    const int sock = accept4(listener->fd, nullptr, nullptr, SOCK_NONBLOCK);
    if (sock == -1) return;
    auto* connection = new Connection{};
    ev_io_init(&connection->io, onReady, sock, EV_READ);
    ev_io_start(loop, &connection->io);
}

}  // namespace

int main(int argc, char** argv) {
    struct ev_loop* loop = ev_default_loop(0);
    ev_io listener;
    ev_io_init(&listener, onConnection, listenOn(endpointFrom(argc, argv), false), EV_READ);
    ev_io_start(loop, &listener);
    sayReady();
    ev_run(loop, 0);
}
