#include "examples/server.h"

#include <netdb.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixServer.h"

namespace {

constexpr uint16_t kOwnerOnly = 0600;

using Source = std::shared_ptr<HXKQueueEventProtocol>;

bool isPort(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), port);
    return error == std::errc() && end == text.end() && port != 0;
}

// The library takes the path from whatever lies there, so this looks first.
Source listenOnPath(HXKQueue& loop, const char* path) {
    struct stat file {};
    if (lstat(path, &file) == 0) {
        std::fprintf(stderr, "%s exists; if it is the socket of a server that is gone, remove it\n",
                     path);
        return nullptr;
    }
    Source server = loop.createUnixServer(path, kOwnerOnly);
    if (!server) std::fprintf(stderr, "cannot listen on %s\n", path);
    return server;
}

Source listenOnAddress(HXKQueue& loop, const char* address, const char* port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address, port, &hints, &found) != 0) {
        std::fprintf(stderr, "%s is not an Internet address\n", address);
        return nullptr;
    }
    Source server = loop.createTCPServer(found->ai_addr);
    freeaddrinfo(found);
    if (!server) std::fprintf(stderr, "cannot listen on %s %s\n", address, port);
    return server;
}

// Blocked on every thread, so that they wait for whoever asks for them.
sigset_t blockEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int serve(const char* unixPath, const char* address, const char* port, ConnectionHandler handler) {
    const sigset_t signals = blockEndingSignals();
    const auto loop = HXKQueue::initWithSubsystem("org.example.server");
    if (!loop) {
        std::fputs("cannot make an event loop\n", stderr);
        return 1;
    }
    const Source server =
        unixPath ? listenOnPath(*loop, unixPath) : listenOnAddress(*loop, address, port);
    if (!server) return 1;
    // The loop is captured weakly: it keeps the server, and the server keeps its block.
    loop->startObject(server, [weakLoop = std::weak_ptr(loop), handle = std::move(handler)](
                                  const Source& /*server*/, const char* bytes, uint64_t /*size*/,
                                  uint64_t* /*dropSize*/, int32_t /*code*/) {
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        const auto running = weakLoop.lock();
        return running && handle(running, accepted->sock);
    });
    loop->start();
    std::printf("listening on %s%s%s\n", unixPath ? unixPath : address, unixPath ? "" : " ",
                unixPath ? "" : port);
    std::fflush(stdout);
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
    loop->stop();
    if (unixPath) unlink(unixPath);
    return 0;
}

}  // namespace

int runServer(int argc, const char* const* argv, ConnectionHandler onConnection) {
    if (argc == 3 && std::strcmp(argv[1], "unix") == 0)
        return serve(argv[2], nullptr, nullptr, std::move(onConnection));
    if (argc == 4 && std::strcmp(argv[1], "tcp") == 0 && isPort(argv[3]))
        return serve(nullptr, argv[2], argv[3], std::move(onConnection));
    if (argc == 4 && std::strcmp(argv[1], "tcp") == 0)
        std::fprintf(stderr, "%s is not a port from 1 to 65535\n", argv[3]);
    std::fprintf(stderr, "Usage: %s unix PATH | tcp ADDRESS PORT\n", argc > 0 ? argv[0] : "server");
    return 2;
}
