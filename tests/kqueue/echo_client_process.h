// A process of its own that opens many connections to an echo server, has messages echoed on all of
// them, and compares every byte that comes back.
//
// What it does
//   It opens all connections, each with a first message, and closes none before each has had its
//   echo: at that moment all are open. Then they finish their messages, a hundred connections at a
//   time. One that has finished closes, every second one with another message under way whose
//   echo it does not wait for, and connects again, to stay with some messages more. So connections
//   come and go while the others talk or wait. At the end all are closed.
//
//   Nothing waits for time: a connection that the server has not greeted yet takes one of a limited
//   number of places, fewer than the server's backlog has, and the next one is opened when a
//   greeting has arrived.
//
// The message sizes come from a seeded generator; see messageSize.
//
// Threads    one, without threads of its own. The process is forked by the constructor, so the
//            object is made before the first thread is.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

struct EchoClientPlan {
    size_t connections = 0;
    size_t messages = 0;  // for each connection
    uint64_t seed = 0;
};

struct EchoClientReport {
    std::array<char, 200> failure = {"the process ended without a report"};  // empty: none
    uint64_t connects = 0;
    uint64_t openAtOnce = 0;  // had an echo each before the first was closed
    uint64_t messages = 0;    // echoed and compared
    uint64_t bytes = 0;       // of these messages, one way
    uint64_t smallest = UINT64_MAX;
    uint64_t largest = 0;
};

// Sizes go from 1 byte to 256 KiB, and small ones are more likely: 2 to the power of 18 u^4, where
// u is even between 0 and 1, but in one draw of two thousand the largest. Half of them have one
// byte or two, and the mean is 5.8 KB: ten thousand connections with a hundred messages each move 6
// GB there and as many back. Were the logarithm of the size even, it would be 21 GB.
class EchoClientProcess {
public:
    static constexpr size_t kLargest = size_t{256} << 10;

    EchoClientProcess(const struct sockaddr_storage& server, const EchoClientPlan& plan);
    EchoClientProcess(const EchoClientProcess&) = delete;
    EchoClientProcess& operator=(const EchoClientProcess&) = delete;
    ~EchoClientProcess();

    // The server listens: lets the process connect.
    void start() const;

    // Waits for the process to end, which it does when nothing has happened for a minute.
    [[nodiscard]] EchoClientReport report() const;

private:
    pid_t process = -1;
    int control = -1;
};
