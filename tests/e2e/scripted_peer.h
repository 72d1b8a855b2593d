// A daemon that does what a test tells it to, step by step: takes a connection on the control
// path, and leaves it to the test what is read, sent and closed, and when.
#pragma once

#include "tests/support/unix_stream.h"

class ScriptedPeer {
public:
    // Listens from here on. Of the connections that nobody has accepted, at most backlog + 1 wait.
    explicit ScriptedPeer(int backlog = 128);
    ~ScriptedPeer();  // the socket file stays, as after a daemon that was killed
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    // Whether a connection waits to be accepted.
    [[nodiscard]] bool isAwaited() const;

    // The next connection. Throws when none comes.
    [[nodiscard]] UnixStream accept() const;

private:
    [[nodiscard]] bool isAwaitedWithin(int ms) const;

    int listener;
};
