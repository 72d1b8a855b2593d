#include "bench/support/reply_server.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

#include "bench/support/list_reply.h"
#include "bench/support/program.h"
#include "ipc/frame.h"
#include "platform/socket_address.h"

namespace {

int listenOn(const std::string& path) {
    sockaddr_un address;
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock == -1 || !makeUnixAddress(path.c_str(), address) ||
        bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        listen(sock, SOMAXCONN) == -1)
        fail("listen on " + path);
    return sock;
}

// A client may go away when it has read enough.
void sendAll(int sock, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

[[noreturn]] void serve(int listener, std::string_view frame) {
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client == -1) fail("accept");
        char request[kFrameHeaderSize];
        if (recv(client, request, sizeof request, MSG_WAITALL) == sizeof request)
            sendAll(client, frame);
        close(client);
    }
}

}  // namespace

ReplyServer::ReplyServer(std::string path_, size_t payloadSize) : path(std::move(path_)) {
    int ends[2];
    if (pipe(ends) == -1) fail("pipe");
    const int listener = listenOn(path);
    child = fork();
    if (child == -1) fail("fork");
    if (child == 0) {
        const ListReply reply = makeListReply(payloadSize);
        const Counts made{.servers = reply.servers, .devices = reply.devices};
        if (write(ends[1], &made, sizeof made) != sizeof made) fail("write");
        serve(listener, reply.frame);
    }
    close(listener);
    close(ends[1]);
    if (read(ends[0], &counts, sizeof counts) != sizeof counts)
        failCheck("the server does not begin");
    close(ends[0]);
}

ReplyServer::~ReplyServer() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    unlink(path.c_str());
}
