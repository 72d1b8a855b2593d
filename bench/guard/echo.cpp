// Echoes messages in lock-step, for scripts/guard to count the system calls of the I/O thread.
//
//     guard_echo unix|tcp ROUNDS
//
// A round is one message of 64 bytes on each of 100 connections. While they are sent, and until all
// of them have arrived, the I/O thread is held in a timer's block: it writes a byte to kHeld and
// reads one from kReleased, and nobody else uses these numbers. Then the timer falls due in each of
// kIterations iterations, so that none of them waits, and the thread is held again. So the calls
// between one read and the next are those of a round, however fast the machine is.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "bench/support/counts.h"
#include "bench/support/descriptor_limit.h"
#include "bench/support/program.h"
#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

// scripts/guard knows these two.
constexpr int kHeld = 900;
constexpr int kReleased = 901;

constexpr size_t kConnections = 100;
constexpr size_t kMessageSize = 64;

// More than an echo takes: one to read, one to write, one to be told that all is written.
constexpr int kIterations = 4;

constexpr int kArrivalMs = 10'000;

struct Connection {
    int ours;
    int client;
};
using Connections = std::vector<Connection>;

Connections connectUnix() {
    Connections connections(kConnections);
    for (Connection& connection : connections) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == -1) fail("socketpair");
        connection = {.ours = ends[0], .client = ends[1]};
    }
    return connections;
}

Connections connectTcp() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, any, size) == -1 || listen(listener, 1) == -1 ||
        getsockname(listener, any, &size) == -1)
        fail("listen");
    const int on = 1;
    Connections connections(kConnections);
    for (Connection& connection : connections) {
        connection.client = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(connection.client, any, size) == -1 ||
            setsockopt(connection.client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1)
            fail("connect");
        connection.ours = accept(listener, nullptr, nullptr);
        if (connection.ours == -1) fail("accept");
    }
    close(listener);
    return connections;
}

void waitForArrival(int fd, const char* what) {
    pollfd arrival{.fd = fd, .events = POLLIN, .revents = 0};
    const int count = poll(&arrival, 1, kArrivalMs);
    if (count == -1) fail("poll");
    if (count == 0) failCheck(what);
}

// A pipe whose one end has the number that is known.
int makePipe(int knownEnd, int number) {
    int ends[2];
    if (pipe(ends) == -1 || dup2(ends[knownEnd], number) == -1) fail("pipe");
    close(ends[knownEnd]);
    return ends[1 - knownEnd];
}

// A loop that echoes, and whose I/O thread is held between the rounds.
class HeldEchoServer {
public:
    explicit HeldEchoServer(const Connections& connections) {
        for (const Connection& connection : connections)
            loop->startObject(loop->createStreamSocket(connection.ours, false),
                              [this](const auto& source, const char* bytes, uint64_t size,
                                     auto* /*drop*/, int32_t code) {
                                  if (code == HXKQueueEventData) loop->write(source, bytes, size);
                                  return true;
                              });
        timer = loop->createTimer(0, true);
        arm();
        loop->start();
        waitUntilHeld();
    }

    void release() const {
        if (write(releasing, "x", 1) != 1) fail("write");
    }

    void waitUntilHeld() const {
        char byte = 0;
        if (read(holding, &byte, 1) != 1) fail("read");
    }

private:
    void arm() {
        loop->startObject(timer, [this](auto&&...) {
            if (++iterations % kIterations == 0) hold();
            arm();
            return true;
        });
    }

    static void hold() {
        char byte = 0;
        if (::write(kHeld, "x", 1) != 1 || read(kReleased, &byte, 1) != 1) fail("hold");
    }

    const int holding = makePipe(1, kHeld);
    const int releasing = makePipe(0, kReleased);
    std::shared_ptr<HXKQueue> loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    std::shared_ptr<HXKQueueTimer> timer;
    int iterations = 0;  // I/O thread
};

using Message = std::array<char, kMessageSize>;

void sendAll(const Connections& connections, const Message& message) {
    for (const Connection& connection : connections)
        if (write(connection.client, message.data(), message.size()) != ssize_t{kMessageSize})
            fail("write");
    for (const Connection& connection : connections)
        waitForArrival(connection.ours, "a message does not arrive");
}

void receiveAll(const Connections& connections, const Message& message) {
    for (const Connection& connection : connections) {
        Message received{};
        waitForArrival(connection.client, "an echo takes more iterations");
        if (recv(connection.client, received.data(), received.size(), MSG_WAITALL) !=
                ssize_t{kMessageSize} ||
            received != message)
            failCheck("not what was sent has come back");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view family = argc == 3 ? argv[1] : "";
    const bool isUnix = family == "unix";
    if (!isUnix && family != "tcp") {
        std::fputs("usage: guard_echo unix|tcp ROUNDS\n", stderr);
        return 2;
    }
    const int rounds = readCount("guard_echo", argv[2]);
    if (allowManyDescriptors() <= kReleased) failCheck("the hard limit of descriptors is too low");
    const Connections connections = isUnix ? connectUnix() : connectTcp();
    const HeldEchoServer server(connections);
    for (int round = 0; round < rounds; ++round) {
        Message message;
        message.fill(static_cast<char>('a' + round % 26));
        sendAll(connections, message);
        server.release();
        server.waitUntilHeld();
        receiveAll(connections, message);
    }
    std::_Exit(0);  // the I/O thread is held
}
