#include "tests/support/unix_stream.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/descriptors.h"
#include "tests/support/outgoing_bytes.h"
#include "tests/support/quiet_send.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::microseconds kGlance{50};

std::string littleEndian(uint32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i, value /= 256)
        bytes += static_cast<char>(value % 256);
    return bytes;
}

uint32_t payloadLength(std::string_view header) {
    uint32_t length = 0;
    for (size_t i = 8; i > 4; --i)
        length = length * 256 + static_cast<unsigned char>(header[i - 1]);
    return length;
}

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

void limitWaiting(int sock) {
    const timeval patience{.tv_sec = kPatience.count(), .tv_usec = 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

// Appends one read to bytes. False at the end of the stream, which a reset is too.
bool receiveSome(int sock, size_t most, std::string& bytes) {
    std::array<char, 65536> piece;
    const ssize_t size = recv(sock, piece.data(), std::min(most, piece.size()), 0);
    if (size == -1 && errno != ECONNRESET) fail("recv");
    if (size > 0) bytes.append(piece.data(), static_cast<size_t>(size));
    return size > 0;
}

}  // namespace

std::string frameHeader(int32_t command, uint32_t length) {
    return littleEndian(static_cast<uint32_t>(command)) + littleEndian(length);
}

std::string frame(int32_t command, std::string_view payload) {
    return frameHeader(command, static_cast<uint32_t>(payload.size())) += payload;
}

bool sendDescriptor(int sock, std::string_view bytes, int descriptor) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptor)> control{};
    iovec data{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return sendQuietly(sock, message) == static_cast<ssize_t>(bytes.size());
}

UnixStream UnixStream::connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UnixStream stream(makeSocket(AF_UNIX, SOCK_STREAM));
    if (connect(stream.sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        fail("connect");
    return stream;
}

UnixStream::UnixStream(int connectedSocket) : sock(connectedSocket) {
    if (sock == -1) fail("no socket");
    limitWaiting(sock);
}

UnixStream::~UnixStream() {
    close();
}

UnixStream::UnixStream(UnixStream&& other) noexcept : sock(std::exchange(other.sock, -1)) {}

bool UnixStream::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t size = sendQuietly(sock, bytes);
        if (size == -1 && errno != EPIPE && errno != ECONNRESET) fail("send");
        if (size == -1) return false;
        bytes.remove_prefix(static_cast<size_t>(size));
    }
    return true;
}

bool UnixStream::sendUrgently(std::string_view bytes) const {
    return sendQuietly(sock, bytes, MSG_OOB) == static_cast<ssize_t>(bytes.size());
}

bool UnixStream::sendDescriptor(std::string_view bytes, int descriptor) const {
    return ::sendDescriptor(sock, bytes, descriptor);
}

void UnixStream::waitUntilTaken() const {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (outgoingBytes(sock).value_or(0) > 0) {
        if (Clock::now() > deadline) throw std::runtime_error("the other end does not read");
        std::this_thread::sleep_for(kGlance);
    }
}

std::string UnixStream::receive(size_t size) const {
    std::string bytes;
    while (bytes.size() < size && receiveSome(sock, size - bytes.size(), bytes)) {
    }
    return bytes;
}

std::string UnixStream::receiveFrame() const {
    std::string bytes = receive(8);
    if (bytes.size() == 8) bytes += receive(payloadLength(bytes));
    return bytes;
}

std::string UnixStream::receiveToEnd() const {
    std::string bytes;
    while (receiveSome(sock, SIZE_MAX, bytes)) {
    }
    return bytes;
}

bool UnixStream::isSilent() const {
    char byte = 0;
    return recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == -1 && errno == EAGAIN;
}

void UnixStream::closeSending() const {
    shutdown(sock, SHUT_WR);
}

void UnixStream::closeReceiving() const {
    shutdown(sock, SHUT_RD);
}

void UnixStream::close() {
    if (sock != -1) ::close(sock);
    sock = -1;
}
