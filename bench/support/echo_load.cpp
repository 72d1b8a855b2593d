#include "bench/support/echo_load.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "bench/support/program.h"
#include "platform/socket_address.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEventsAtOnce = 256;

int connectUnix(const std::string& path) {
    sockaddr_un address;
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || !makeUnixAddress(path.c_str(), address) ||
        connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        fail("connect to " + path);
    return sock;
}

int connectTCP(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock == -1 ||
        connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1)
        fail("connect to port " + std::to_string(port));
    return sock;
}

int connectTo(const std::string& path, int port) {
    return path.empty() ? connectTCP(port) : connectUnix(path);
}

}  // namespace

struct EchoLoad::Connection {
    int sock;
    std::vector<char> message;
    size_t sent = 0;
    size_t received = 0;
    uint32_t number = 0;
    Clock::time_point began;
};

EchoLoad::EchoLoad(const std::string& path, int port, size_t busy, size_t idle, size_t size)
    : messageSize(size), queue(epoll_create1(EPOLL_CLOEXEC)), buffer(size) {
    if (queue == -1) fail("epoll_create1");
    for (size_t i = 0; i < idle; ++i)
        idleSockets.push_back(connectTo(path, port));
    for (size_t i = 0; i < busy; ++i) {
        auto connection = std::make_unique<Connection>();
        connection->sock = connectTo(path, port);
        connection->message.resize(size);
        for (size_t byte = 0; byte < size; ++byte)
            connection->message[byte] = static_cast<char>(i * 31 + byte);
        epoll_event event{.events = EPOLLIN, .data = {.ptr = connection.get()}};
        if (fcntl(connection->sock, F_SETFL, O_NONBLOCK) == -1 ||
            epoll_ctl(queue, EPOLL_CTL_ADD, connection->sock, &event) == -1)
            fail("epoll_ctl");
        connections.push_back(std::move(connection));
    }
}

EchoLoad::~EchoLoad() {
    for (const auto& connection : connections)
        close(connection->sock);
    for (const int sock : idleSockets)
        close(sock);
    close(queue);
}

EchoFigures EchoLoad::run(double seconds) {
    EchoFigures figures;
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::duration<double>(seconds);
    for (const auto& connection : connections)
        send(*connection);
    size_t underWay = connections.size();
    std::vector<epoll_event> events(kEventsAtOnce);
    while (underWay > 0) {
        const int count = epoll_wait(queue, events.data(), kEventsAtOnce, -1);
        if (count == -1) fail("epoll_wait");
        for (int i = 0; i < count; ++i) {
            auto& connection = *static_cast<Connection*>(events[static_cast<size_t>(i)].data.ptr);
            if (!receive(connection)) continue;
            const auto now = Clock::now();
            figures.latencies.push_back(
                std::chrono::duration<double>(now - connection.began).count());
            if (now < end)
                send(connection);
            else
                --underWay;
        }
    }
    figures.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    figures.messages = static_cast<double>(figures.latencies.size());
    return figures;
}

// No message is larger than the buffers of an idle connection, so it is sent in one piece.
void EchoLoad::send(Connection& connection) const {
    std::memcpy(connection.message.data(), &++connection.number, sizeof connection.number);
    connection.received = 0;
    connection.began = Clock::now();
    if (write(connection.sock, connection.message.data(), messageSize) !=
        static_cast<ssize_t>(messageSize))
        fail("write");
}

// Whether the whole message has come back.
bool EchoLoad::receive(Connection& connection) {
    const size_t missing = messageSize - connection.received;
    const ssize_t count = read(connection.sock, buffer.data(), missing);
    if (count == -1 && errno == EAGAIN) return false;
    if (count == -1) fail("read");
    if (count == 0) failCheck("the server has ended a connection");
    const auto size = static_cast<size_t>(count);
    if (std::memcmp(buffer.data(), connection.message.data() + connection.received, size) != 0)
        failCheck("what came back is not what was sent");
    connection.received += size;
    return connection.received == messageSize;
}
