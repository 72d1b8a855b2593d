// A client of an echo server that keeps one message under way on each of many connections, and
// verifies every byte that comes back.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct EchoFigures {
    double messages = 0;
    double seconds = 0;
    std::vector<double> latencies;  // of each message, in seconds
};

class EchoLoad {
public:
    // Connects to a path, or, without one, to the port on 127.0.0.1. Idle connections are made too,
    // and then say nothing.
    EchoLoad(const std::string& path, int port, size_t busy, size_t idle, size_t messageSize);
    EchoLoad(const EchoLoad&) = delete;
    EchoLoad& operator=(const EchoLoad&) = delete;
    ~EchoLoad();

    // Until about so many seconds have passed; the messages under way are waited for. A byte that
    // is not what was sent ends the benchmark.
    [[nodiscard]] EchoFigures run(double seconds);

private:
    struct Connection;

    void send(Connection& connection) const;
    bool receive(Connection& connection);

    const size_t messageSize;
    int queue = -1;
    std::vector<int> idleSockets;
    std::vector<std::unique_ptr<Connection>> connections;
    std::vector<char> buffer;
};
