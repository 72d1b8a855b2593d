// Socket addresses, with a length byte of their own (macOS) or without one (Linux).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

// The longest path of a Unix socket, in bytes without the terminating NUL. macOS' sockaddr_un has
// 104 bytes for it; Linux' 108, but a path that is good on one system shall be good on the other.
inline constexpr size_t kMaxUnixPath = 103;

// What bind(2) and connect(2) take as the address's length. macOS: the address's own length byte.
// Linux: by its family; 0, which both calls refuse, for a family other than AF_INET, AF_INET6 and
// AF_UNIX.
[[nodiscard]] socklen_t socketAddressLength(const struct sockaddr* address) noexcept;

// Fills out whole, its length byte included where there is one. False for a path of more than
// kMaxUnixPath bytes and for an empty one (which Linux would take for an unnamed or abstract
// socket, and macOS refuses); out is then untouched.
[[nodiscard]] bool makeUnixAddress(const char* path, struct sockaddr_un& out) noexcept;
