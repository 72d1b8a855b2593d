// What the example servers have in common: the command line, listening, and a clean end.
#pragma once

#include <functional>
#include <memory>

#include "kqueue/HXKQueue.h"

// Takes over sock, a connection that was accepted. False when it is not wanted; it is then closed.
// Runs on the loop's I/O thread and must not throw.
using ConnectionHandler = std::function<bool(const std::shared_ptr<HXKQueue>& loop, int sock)>;

// Serves connections to `unix PATH` or `tcp ADDRESS PORT`, as the arguments say, until SIGINT or
// SIGTERM. The result is the program's exit status: 0, 1 when it cannot listen, 2 for a wrong
// command line. A file that exists at PATH is left alone; the socket file is removed at the end.
int runServer(int argc, const char* const* argv, ConnectionHandler onConnection);
