#include "tests/examples/byte_traffic.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr int kWhileMs = 500;

bool waitForRoom(int fd) {
    pollfd waiting{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&waiting, 1, kWhileMs) == 1;
}

}  // namespace

// By xorshift64*, which is fast also where nothing is optimised.
std::string noise(size_t size, uint32_t seed) {
    uint64_t state = seed + uint64_t{1};
    std::string bytes(size + sizeof state, '\0');
    for (size_t at = 0; at < size; at += sizeof state) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        const uint64_t value = state * 0x2545F4914F6CDD1D;
        std::memcpy(bytes.data() + at, &value, sizeof value);
    }
    bytes.resize(size);
    return bytes;
}

size_t writeUntilStalled(int fd, std::string_view bytes) {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t size = write(fd, bytes.data() + written, bytes.size() - written);
        if (size > 0)
            written += static_cast<size_t>(size);
        else if (errno != EAGAIN || !waitForRoom(fd))
            break;
    }
    fcntl(fd, F_SETFL, flags);
    return written;
}

std::string readToEnd(int fd) {
    std::string bytes;
    std::array<char, 65536> piece;
    ssize_t size = 0;
    while ((size = read(fd, piece.data(), piece.size())) > 0)
        bytes.append(piece.data(), static_cast<size_t>(size));
    return bytes;
}
