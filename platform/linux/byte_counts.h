// How many bytes a read finds and a blocking write takes, by kind of descriptor. Internal to
// platform/linux.
//
// Threads    any.
// Errors     a call that fails leaves errno as the kernel set it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>

namespace epollqueue {

enum class DescriptorKind {
    TcpSocket,
    UnixSocket,
    OtherSocket,
    Pipe,  // FIFOs included
    Terminal,
    RegularFile,
    NullDevice,
    OtherDevice,  // without readiness of its own, such as /dev/zero
    OtherPollable,
    Unsupported,
};

[[nodiscard]] DescriptorKind kindOf(int fd, const struct stat& status) noexcept;

[[nodiscard]] constexpr bool isStreamSocket(DescriptorKind kind) {
    return kind == DescriptorKind::TcpSocket || kind == DescriptorKind::UnixSocket;
}

[[nodiscard]] constexpr bool isSocket(DescriptorKind kind) {
    return isStreamSocket(kind) || kind == DescriptorKind::OtherSocket;
}

// epoll(7) refuses these with EPERM: they are ready whenever they have bytes or room.
[[nodiscard]] constexpr bool isAlwaysReady(DescriptorKind kind) {
    return kind == DescriptorKind::RegularFile || kind == DescriptorKind::NullDevice ||
           kind == DescriptorKind::OtherDevice;
}

// What read(2) would find now, exactly; 1 for a listening socket, which the caller knows to be
// ready, and for the two other kinds of which no more is known. None when the descriptor cannot
// tell.
[[nodiscard]] std::optional<int64_t> readableBytes(int fd, DescriptorKind kind) noexcept;

// What read(2) would find now in a stream socket whose FIONREAD is no help, up to the given number
// or a few million if that is less. error is what the kernel then says of the socket, and forgets;
// it is left alone if that is nothing.
[[nodiscard]] int64_t peekedBytes(int fd, int64_t most, int& error) noexcept;

// Whether FIONREAD counts something in a Unix socket: that may be a byte that was sent out of band,
// and that a read has passed over.
[[nodiscard]] bool hasCountedBytes(int fd) noexcept;

// Whether poll(2) finds the descriptor readable at this moment.
[[nodiscard]] bool isReadable(int fd) noexcept;

// What a blocking write(2) takes without blocking. REQUIRES: the descriptor polls writable. At
// least 1 then.
[[nodiscard]] int64_t writableBytes(int fd, DescriptorKind kind) noexcept;

// A number of bytes that a blocking write(2) takes without blocking whenever the socket polls
// writable, however small its buffer is then. None for what is no stream socket of a known kind,
// and for a TCP socket that may have few bytes unsent (TCP_NOTSENT_LOWAT).
[[nodiscard]] std::optional<int64_t> leastWritableBytes(int fd, DescriptorKind kind) noexcept;

[[nodiscard]] bool isListening(int fd) noexcept;

// The socket's pending error, which the kernel then forgets; 0 without one.
[[nodiscard]] int takeSocketError(int fd) noexcept;

// Whether a TCP socket that reports a hang-up does so only because it was never connected: one
// that was has also been shut for reading.
[[nodiscard]] bool isUnconnectedTcp(int fd) noexcept;

}  // namespace epollqueue
