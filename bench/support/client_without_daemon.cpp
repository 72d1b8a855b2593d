#include "bench/support/client_without_daemon.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "bench/support/in_child.h"
#include "bench/support/program.h"
#include "kqueue/HXKQueue.h"
#include "platform/socket_address.h"

namespace {

constexpr int kArrivalMs = 10'000;

struct Connection {
    std::shared_ptr<HXKQueue> loop;
    std::shared_ptr<HXTarnIPCClient> client;
    int daemon;
};

Connection connectClient() {
    char directory[] = "/tmp/hxusbvctl-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) fail("mkdtemp");
    const std::string path = std::string(directory) + "/socket";
    sockaddr_un address;
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener == -1 || !makeUnixAddress(path.c_str(), address) ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener, 1) == -1)
        fail("listen on " + path);
    auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    auto client = loop ? HXTarnIPCClient::initWithKQueue(loop, path.c_str()) : nullptr;
    if (!client) failCheck("no client");
    const int daemon = accept(listener, nullptr, nullptr);
    if (daemon == -1) fail("accept");
    close(listener);
    std::filesystem::remove_all(directory);
    return {.loop = std::move(loop), .client = std::move(client), .daemon = daemon};
}

// Up to size bytes; fewer at the end of the stream, or when nothing comes for too long.
std::string receive(int sock, size_t size) {
    std::string bytes(size, '\0');
    size_t received = 0;
    while (received < size) {
        pollfd arrival{.fd = sock, .events = POLLIN, .revents = 0};
        if (poll(&arrival, 1, kArrivalMs) != 1) break;
        const ssize_t count = read(sock, bytes.data() + received, size - received);
        if (count <= 0) break;
        received += static_cast<size_t>(count);
    }
    bytes.resize(received);
    return bytes;
}

bool isSent(const std::function<void(HXTarnIPCClient&)>& request, std::string_view frame) {
    const Connection connection = connectClient();
    connection.loop->start();
    connection.client->start();
    request(*connection.client);
    if (receive(connection.daemon, frame.size()) != frame) return false;
    connection.client->stop();
    return receive(connection.daemon, 1).empty();
}

}  // namespace

std::shared_ptr<HXTarnIPCClient> makeClientWithoutDaemon() {
    const Connection connection = connectClient();
    close(connection.daemon);
    return connection.client;
}

void requireSent(const std::function<void(HXTarnIPCClient&)>& request, std::string_view frame) {
    if (!inChild([&] { return isSent(request, frame); })) failCheck("another frame is sent");
}
