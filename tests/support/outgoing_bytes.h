// What has been sent on a connected Unix stream socket and the other end has not read yet.
// linux: SIOCOUTQ, which counts the kernel's bookkeeping too. darwin: what is sent is in the other
// end's buffer at once, and nothing tells what becomes of it.
#pragma once

#include <optional>

// A number of bytes, 0 when all is read; nothing where the system cannot tell. Throws
// std::runtime_error for anything but such a socket.
[[nodiscard]] std::optional<int> outgoingBytes(int sock);
