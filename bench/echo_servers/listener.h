// What the echo servers that are compared have in common: the command line and the listening
// socket.
#pragma once

#include <cstdint>
#include <string>

struct Endpoint {
    bool isUnix;
    std::string address;  // a path, or the numeric IPv4 address to listen on
    uint16_t port;        // of TCP
};

// From `unix PATH` or `tcp ADDRESS PORT`; anything else ends the program with status 2.
[[nodiscard]] Endpoint endpointFrom(int argc, const char* const* argv);

// A listening socket, blocking or not, or the end of the program with status 1.
[[nodiscard]] int listenOn(const Endpoint& endpoint, bool blocking);

// Says on standard output that connections are taken from now on.
void sayReady();

inline constexpr int kBacklog = 1024;

// What the servers that have a buffer of their own read at most in one call.
inline constexpr int kReadSize = 65'536;
