// An example server that runs while the test goes on, on a path or an address of the test's own.
#pragma once

#include <string>

#include "tests/examples/scratch_directory.h"
#include "tests/support/captured_run.h"
#include "tests/support/unix_stream.h"

class UnixServerRun {
public:
    // Returns once the program listens.
    explicit UnixServerRun(const std::string& program);

    [[nodiscard]] UnixStream connect() const { return UnixStream::connectTo(path); }

    const ScratchDirectory directory;
    const std::string path;
    RunningProgram server;
};

class TcpServerRun {
public:
    // As above, on the loopback address of AF_INET or AF_INET6, and a port that nobody else gets
    // meanwhile. Throws NoAddress where the machine has none of that family.
    TcpServerRun(const std::string& program, int family);
    TcpServerRun(const TcpServerRun&) = delete;
    TcpServerRun& operator=(const TcpServerRun&) = delete;
    ~TcpServerRun();

    struct NoAddress {};

    [[nodiscard]] int connectedSocket() const;
    [[nodiscard]] UnixStream connect() const { return UnixStream(connectedSocket()); }

private:
    const int family;
    int placeholder;  // bound, and never listening, so that the port stays the test's
    std::string port;
    RunningProgram server;
};
