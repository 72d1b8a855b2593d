#include "tests/examples/running_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "tests/support/descriptors.h"

namespace {

RunningProgram startListening(const std::vector<std::string>& arguments, const std::string& name) {
    RunningProgram program(arguments);
    if (!program.waitForOutput("listening on " + name + "\n"))
        throw std::runtime_error("the server does not start: " + program.finish().err);
    return program;
}

struct Address {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

// Both families have their port in the same place.
in_port_t& portOf(Address& address) {
    return reinterpret_cast<sockaddr_in*>(&address.storage)->sin_port;
}

Address loopback(int family) {
    Address address;
    address.storage.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        auto* inet = reinterpret_cast<sockaddr_in*>(&address.storage);
        inet->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.length = sizeof *inet;
    } else {
        auto* inet6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
        inet6->sin6_addr = in6addr_loopback;
        address.length = sizeof *inet6;
    }
    return address;
}

// The kernel gives nobody a port that is bound, but lets the server, which shares, ask for it.
int bindPlaceholder(int family) {
    const int sock = makeSocket(family, SOCK_STREAM);
    if (sock == -1 && errno == EAFNOSUPPORT) throw TcpServerRun::NoAddress();
    const int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    Address address = loopback(family);
    if (bind(sock, address.get(), address.length) == 0) return sock;
    const int error = errno;
    close(sock);
    if (error == EADDRNOTAVAIL) throw TcpServerRun::NoAddress();
    throw std::runtime_error("cannot bind a placeholder: " + std::string(std::strerror(error)));
}

std::string boundPort(int sock) {
    Address address;
    getsockname(sock, address.get(), &address.length);
    return std::to_string(ntohs(portOf(address)));
}

}  // namespace

UnixServerRun::UnixServerRun(const std::string& program)
    : path(directory.path("socket")), server(startListening({program, "unix", path}, path)) {}

TcpServerRun::TcpServerRun(const std::string& program, int addressFamily)
    : family(addressFamily),
      placeholder(bindPlaceholder(family)),
      port(boundPort(placeholder)),
      server([&] {
          const std::string address = family == AF_INET ? "127.0.0.1" : "::1";
          return startListening({program, "tcp", address, port}, address + " " + port);
      }()) {}

TcpServerRun::~TcpServerRun() {
    close(placeholder);
}

int TcpServerRun::connectedSocket() const {
    const int sock = makeSocket(family, SOCK_STREAM);
    Address address = loopback(family);
    portOf(address) = htons(static_cast<in_port_t>(std::stoi(port)));
    if (::connect(sock, address.get(), address.length) == 0) return sock;
    close(sock);
    throw std::runtime_error("cannot connect");
}
