#include "tests/support/unix_listener.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "tests/support/descriptors.h"

namespace {

std::string makeDirectory() {
    std::string directory = "/tmp/unix_listener_XXXXXX";
    if (!mkdtemp(directory.data())) throw std::runtime_error("mkdtemp failed");
    return directory;
}

}  // namespace

UnixListener::UnixListener()
    : directory(makeDirectory()),
      socketPath(directory + "/socket"),
      sock(makeSocket(AF_UNIX, SOCK_STREAM)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const timeval patience{.tv_sec = 60, .tv_usec = 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        listen(sock, 16) == -1)
        throw std::runtime_error("cannot listen");
}

UnixListener::~UnixListener() {
    close();
    unlink(socketPath.c_str());
    rmdir(directory.c_str());
}

UnixStream UnixListener::accept() const {
    return UnixStream(acceptFrom(sock));
}

void UnixListener::close() {
    if (sock != -1) ::close(sock);
    sock = -1;
}
