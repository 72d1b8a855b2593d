#include "bench/echo_servers/listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/socket_address.h"

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int bindUnix(const Endpoint& endpoint) {
    sockaddr_un address;
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || !makeUnixAddress(endpoint.address.c_str(), address) ||
        bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        fail("bind");
    return sock;
}

int bindTCP(const Endpoint& endpoint) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    if (sock == -1 || inet_pton(AF_INET, endpoint.address.c_str(), &address.sin_addr) != 1 ||
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        fail("bind");
    return sock;
}

}  // namespace

Endpoint endpointFrom(int argc, const char* const* argv) {
    const std::string_view kind = argc > 1 ? argv[1] : "";
    if (kind == "unix" && argc == 3) return {.isUnix = true, .address = argv[2], .port = 0};
    if (kind == "tcp" && argc == 4)
        return {.isUnix = false,
                .address = argv[2],
                .port = static_cast<uint16_t>(std::strtoul(argv[3], nullptr, 10))};
    std::fprintf(stderr, "Usage: %s unix PATH | tcp ADDRESS PORT\n", argv[0]);
    std::exit(2);
}

int listenOn(const Endpoint& endpoint, bool blocking) {
    const int sock = endpoint.isUnix ? bindUnix(endpoint) : bindTCP(endpoint);
    if (!blocking && fcntl(sock, F_SETFL, O_NONBLOCK) == -1) fail("fcntl");
    if (listen(sock, kBacklog) == -1) fail("listen");
    return sock;
}

void sayReady() {
    std::puts("ready");
    std::fflush(stdout);
}
