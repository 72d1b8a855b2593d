// send(2) and sendmsg(2) by a thread of the test, which has no signal blocked, to a peer that may
// be gone: an error then, and no SIGPIPE.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <string_view>

ssize_t sendQuietly(int sock, std::string_view bytes, int flags = 0);
ssize_t sendQuietly(int sock, const struct msghdr& message);
