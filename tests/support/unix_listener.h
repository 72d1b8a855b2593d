// A Unix socket that listens on a path of its own, for tests in which a client connects. The path
// goes with it.
#pragma once

#include <string>

#include "tests/support/unix_stream.h"

class UnixListener {
public:
    UnixListener();
    UnixListener(const UnixListener&) = delete;
    UnixListener& operator=(const UnixListener&) = delete;
    ~UnixListener();

    [[nodiscard]] const char* path() const { return socketPath.c_str(); }

    // The next connection; waits for it, for a minute at most.
    [[nodiscard]] UnixStream accept() const;

    // From now on connecting fails, although the path stays.
    void close();

private:
    std::string directory;
    std::string socketPath;
    int sock;
};
