#include "tests/kqueue/echo_client_process.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Fewer than the backlog of 128 has places.
constexpr size_t kMostAtOnce = 100;

constexpr size_t kMessagesAfterReturn = 5;
constexpr int kPatienceMs = 60'000;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

[[noreturn]] void failWithErrno(const char* call) {
    fail(std::string(call) + ": " + std::strerror(errno));
}

size_t messageSize(std::mt19937_64& generator) {
    std::uniform_real_distribution<double> share(0, 1);
    if (share(generator) < 1.0 / 2000) return EchoClientProcess::kLargest;
    return static_cast<size_t>(std::exp2(18 * std::pow(share(generator), 4)));
}

// What messages are cut from, at places of their own.
class Pattern {
public:
    explicit Pattern(std::mt19937_64& generator) : bytes(EchoClientProcess::kLargest + kPlaces) {
        for (char& byte : bytes)
            byte = static_cast<char>(generator());
    }

    [[nodiscard]] std::span<const char> cut(std::mt19937_64& generator, size_t size) const {
        return std::span(bytes).subspan(generator() % kPlaces, size);
    }

private:
    static constexpr size_t kPlaces = 1 << 16;
    std::vector<char> bytes;
};

struct Connection {
    int sock = -1;
    bool waitsToSend = false;  // epoll watches for room
    std::span<const char> message{};
    size_t sent = 0;
    size_t received = 0;
    size_t messagesLeft = 0;

    [[nodiscard]] bool isEchoed() const { return received == message.size(); }
};

class EchoClient {
public:
    EchoClient(const struct sockaddr_storage& server_, const EchoClientPlan& plan_,
               EchoClientReport& report_)
        : server(server_),
          plan(plan_),
          report(report_),
          generator(plan_.seed),
          pattern(generator),
          epoll(epoll_create1(0)),
          connections(plan_.connections) {}
    EchoClient(const EchoClient&) = delete;
    EchoClient& operator=(const EchoClient&) = delete;
    ~EchoClient() { close(epoll); }

    void run() {
        openAll();
        finishAll();
        closeAll();
    }

private:
    void openAll() {
        size_t opened = 0;
        size_t greeted = 0;
        while (greeted < connections.size()) {
            while (opened < connections.size() && opened - greeted < kMostAtOnce)
                open(connections[opened++], 1);
            progress([&](Connection& /*echoed*/) { ++greeted; });
        }
        report.openAtOnce = greeted;
    }

    void finishAll() {
        size_t begun = 0;
        size_t finished = 0;
        while (finished < connections.size()) {
            while (begun < connections.size() && begun - finished < kMostAtOnce) {
                connections[begun].messagesLeft = plan.messages - 1;
                returning.resize(begun + 1);
                next(connections[begun++]);
            }
            progress([&](Connection& echoed) {
                const auto number = static_cast<size_t>(&echoed - connections.data());
                if (echoed.messagesLeft > 0) {
                    next(echoed);
                } else if (!returning[number]) {
                    returning[number] = true;
                    leave(echoed, number % 2 == 0);
                    open(echoed, kMessagesAfterReturn);
                } else {
                    ++finished;
                }
            });
        }
    }

    void closeAll() {
        for (Connection& connection : connections) {
            char surplus = 0;
            if (recv(connection.sock, &surplus, 1, MSG_DONTWAIT) != -1 || errno != EAGAIN)
                fail("more came than was echoed");
            close(connection.sock);
        }
    }

    void open(Connection& connection, size_t messages) {
        ++report.connects;
        connection = {.sock = socket(server.ss_family, SOCK_STREAM | SOCK_NONBLOCK, 0),
                      .messagesLeft = messages};
        if (connection.sock == -1) failWithErrno("socket");
        if (server.ss_family == AF_INET) bindToOwnAddress(connection);
        const socklen_t length =
            server.ss_family == AF_INET ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_un);
        if (connect(connection.sock, reinterpret_cast<const struct sockaddr*>(&server), length) ==
                -1 &&
            errno != EINPROGRESS)
            failWithErrno("connect");
        watch(connection, EPOLL_CTL_ADD, EPOLLIN);
        next(connection);
    }

    // Ports are taken for an address, so with some addresses there are enough of them, those
    // included that the kernel still keeps from earlier connections.
    void bindToOwnAddress(const Connection& connection) const {
        const auto number = static_cast<uint32_t>(&connection - connections.data());
        const int on = 1;
        setsockopt(connection.sock, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        struct sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1 + number % 100);
        if (bind(connection.sock, reinterpret_cast<const struct sockaddr*>(&own), sizeof own) == -1)
            failWithErrno("bind");
    }

    void watch(Connection& connection, int operation, uint32_t what) const {
        struct epoll_event event = {};
        event.events = what;
        event.data.ptr = &connection;
        if (epoll_ctl(epoll, operation, connection.sock, &event) == -1) failWithErrno("epoll_ctl");
        connection.waitsToSend = (what & EPOLLOUT) != 0;
    }

    void next(Connection& connection) {
        --connection.messagesLeft;
        connection.message = pattern.cut(generator, messageSize(generator));
        connection.sent = 0;
        connection.received = 0;
        send(connection);
    }

    // A connection that is not complete yet has no room.
    void send(Connection& connection) const {
        while (connection.sent < connection.message.size()) {
            const std::span<const char> rest = connection.message.subspan(connection.sent);
            const ssize_t size = ::send(connection.sock, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (size == -1 && errno != EAGAIN) failWithErrno("send");
            if (size == -1) {
                if (!connection.waitsToSend) watch(connection, EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
                return;
            }
            connection.sent += static_cast<size_t>(size);
        }
        if (connection.waitsToSend) watch(connection, EPOLL_CTL_MOD, EPOLLIN);
    }

    void receive(Connection& connection) {
        while (!connection.isEchoed()) {
            const std::span<const char> rest = connection.message.subspan(connection.received);
            const ssize_t result =
                recv(connection.sock, buffer.data(), std::min(buffer.size(), rest.size()), 0);
            if (result == -1 && errno == EAGAIN) return;
            if (result == -1) failWithErrno("recv");
            if (result == 0) fail("the server has closed a connection");
            const auto size = static_cast<size_t>(result);
            if (connection.received + size > connection.sent) fail("more came than was sent");
            if (std::memcmp(buffer.data(), rest.data(), size) != 0) fail("other bytes came back");
            connection.received += size;
        }
        ++report.messages;
        report.bytes += connection.message.size();
        report.smallest = std::min<uint64_t>(report.smallest, connection.message.size());
        report.largest = std::max<uint64_t>(report.largest, connection.message.size());
    }

    void leave(Connection& connection, bool inMidMessage) {
        if (inMidMessage) {
            connection.messagesLeft = 1;
            next(connection);
        }
        close(connection.sock);
    }

    template <typename OnEchoed>
    void progress(OnEchoed onEchoed) {
        std::array<struct epoll_event, kMostAtOnce> events{};
        const int count = epoll_wait(epoll, events.data(), kMostAtOnce, kPatienceMs);
        if (count == -1) failWithErrno("epoll_wait");
        if (count == 0) fail("nothing has happened for a minute");
        for (const struct epoll_event& event :
             std::span(events).first(static_cast<size_t>(count))) {
            Connection& connection = *static_cast<Connection*>(event.data.ptr);
            if (connection.isEchoed()) fail("the server has sent something unasked");
            send(connection);
            receive(connection);
            if (connection.isEchoed()) onEchoed(connection);
        }
    }

    const struct sockaddr_storage server;
    const EchoClientPlan plan;
    EchoClientReport& report;
    std::mt19937_64 generator;
    const Pattern pattern;
    const int epoll;
    std::vector<Connection> connections;
    std::vector<bool> returning;  // by number: has closed once
    std::array<char, 65536> buffer{};
};

// An end of the pipe instead of the word means that nobody wants the connections any more.
bool waitForWord(int control) {
    char word = 0;
    return read(control, &word, 1) == 1;
}

[[noreturn]] void clientProcess(const struct sockaddr_storage& server, const EchoClientPlan& plan,
                                int control) {
    if (!waitForWord(control)) _exit(0);
    EchoClientReport report;
    report.failure = {};
    try {
        EchoClient(server, plan, report).run();
    } catch (const std::exception& error) {
        std::snprintf(report.failure.data(), report.failure.size(), "%s", error.what());
    }
    _exit(write(control, &report, sizeof report) == sizeof report ? 0 : 1);
}

}  // namespace

EchoClientProcess::EchoClientProcess(const struct sockaddr_storage& server,
                                     const EchoClientPlan& plan) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == -1) failWithErrno("socketpair");
    process = fork();
    if (process == -1) failWithErrno("fork");
    if (process == 0) {
        close(ends[0]);
        clientProcess(server, plan, ends[1]);
    }
    close(ends[1]);
    control = ends[0];
}

EchoClientProcess::~EchoClientProcess() {
    close(control);
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void EchoClientProcess::start() const {
    send(control, "", 1, MSG_NOSIGNAL);
}

EchoClientReport EchoClientProcess::report() const {
    EchoClientReport report;
    EchoClientReport received;
    if (recv(control, &received, sizeof received, MSG_WAITALL) == sizeof received)
        report = received;
    return report;
}
