#include "platform/linux/byte_counts.h"

#include <fcntl.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>

namespace epollqueue {

namespace {

// A terminal polls writable with room for a single byte, and output processing turns one byte into
// several: of 32 tabs, or newlines, it has been seen to take one.
constexpr int64_t kTerminalRoom = 1;

// The kernel charges a socket for its bookkeeping as well as for the bytes. The worst case seen is
// a segment of some 200 bytes with 1,300 bytes of bookkeeping, so an eighth of what is free holds
// for every segment size that a connection uses in practice.
constexpr int64_t kTcpChargePerByte = 8;

// Only an answer that fills the value counts.
template <typename Value>
bool socketOption(int fd, int level, int name, Value& value) noexcept {
    socklen_t length = sizeof value;
    return getsockopt(fd, level, name, &value, &length) == 0 && length == sizeof value;
}

int64_t sendBufferSize(int fd) noexcept {
    int size = 0;
    return socketOption(fd, SOL_SOCKET, SO_SNDBUF, size) ? size : 0;
}

// tcp(7), tcp_notsent_lowat: a write waits while more than this is unsent, room or not.
int64_t systemUnsentLimit() noexcept {
    std::array<char, 32> text{};
    const int fd = open("/proc/sys/net/ipv4/tcp_notsent_lowat", O_RDONLY | O_CLOEXEC);
    const ssize_t size = fd == -1 ? -1 : read(fd, text.data(), text.size() - 1);
    if (fd != -1) close(fd);
    return size > 0 ? static_cast<int64_t>(std::strtoul(text.data(), nullptr, 10)) : UINT_MAX;
}

int64_t unsentLimit(int fd) noexcept {
    static const int64_t systemWide = systemUnsentLimit();
    unsigned own = 0;
    const bool set = socketOption(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, own) && own != 0;
    return set ? own : systemWide;
}

// A TCP socket polls writable while at least a third of its send buffer is free and less than half
// of its unsent limit is taken. SIOCOUTQ would leave the bookkeeping out: on loopback it promises
// 53 KB when the next byte blocks. Emulators of the kernel do not all know SO_MEMINFO; one answers
// with a single number.
int64_t tcpFreeBuffer(int fd) noexcept {
    std::array<uint32_t, SK_MEMINFO_VARS> memory{};
    if (!socketOption(fd, SOL_SOCKET, SO_MEMINFO, memory)) return sendBufferSize(fd) / 3;
    return int64_t{memory[SK_MEMINFO_SNDBUF]} - int64_t{memory[SK_MEMINFO_WMEM_QUEUED]};
}

// The smallest send buffer that SO_SNDBUF makes: asking for 1 byte, and for none, gives this much.
constexpr int64_t kLeastSendBuffer = 4608;

int64_t tcpRoom(int fd) noexcept {
    return std::min(tcpFreeBuffer(fd) / kTcpChargePerByte, unsentLimit(fd) / 2);
}

// A Unix socket polls writable while its charge is at most a quarter of its send buffer. A write
// is cut into pieces of at most half the buffer less 64 bytes (net/unix/af_unix.c), and each piece
// is let in as long as the charge before it is below the buffer's size: one always is.
constexpr int64_t unixRoom(int64_t sendBuffer) noexcept {
    return sendBuffer / 2 - 64;
}

// A third of the smallest buffer is free, and less than half of the unsent limit taken.
constexpr int64_t kLeastTcpRoom = kLeastSendBuffer / 3 / kTcpChargePerByte;

// What one read takes at most, whatever it is given room for (read(2)).
constexpr int64_t kMostOfOneRead = 0x7ffff000;

int64_t fileRemainder(int fd) noexcept {
    struct stat status;
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position == -1 || fstat(fd, &status) != 0) return 0;
    return std::clamp<int64_t>(status.st_size - position, 0, kMostOfOneRead);
}

// One that has been hung up no longer answers, but with an error that no other device has.
bool isTerminal(int fd) noexcept {
    return isatty(fd) != 0 || errno == EIO;
}

DescriptorKind kindOfSocket(int fd) noexcept {
    int domain = 0;
    int type = 0;
    if (!socketOption(fd, SOL_SOCKET, SO_DOMAIN, domain) ||
        !socketOption(fd, SOL_SOCKET, SO_TYPE, type) || type != SOCK_STREAM)
        return DescriptorKind::OtherSocket;
    if (domain == AF_INET || domain == AF_INET6) return DescriptorKind::TcpSocket;
    return domain == AF_UNIX ? DescriptorKind::UnixSocket : DescriptorKind::OtherSocket;
}

}  // namespace

DescriptorKind kindOf(int fd, const struct stat& status) noexcept {
    switch (status.st_mode & S_IFMT) {
        case S_IFSOCK:
            return kindOfSocket(fd);
        case S_IFIFO:
            return DescriptorKind::Pipe;
        case S_IFREG:
            return DescriptorKind::RegularFile;
        case S_IFCHR:
            if (status.st_rdev == makedev(1, 3)) return DescriptorKind::NullDevice;  // null(4)
            return isTerminal(fd) ? DescriptorKind::Terminal : DescriptorKind::OtherDevice;
        case S_IFDIR:
        case S_IFBLK:
            return DescriptorKind::Unsupported;
        default:
            return DescriptorKind::OtherPollable;
    }
}

std::optional<int64_t> readableBytes(int fd, DescriptorKind kind) noexcept {
    if (kind == DescriptorKind::RegularFile) return fileRemainder(fd);
    if (kind == DescriptorKind::NullDevice) return 0;
    if (kind == DescriptorKind::OtherDevice || kind == DescriptorKind::OtherPollable) return 1;
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) == 0) return bytes;
    // Of all sockets only a listening one has no such count.
    if (isSocket(kind) && errno == EINVAL) return 1;
    return std::nullopt;
}

// The bytes do not matter, so they are put on top of each other.
int64_t peekedBytes(int fd, int64_t most, int& error) noexcept {
    std::array<char, 4096> bytes;
    std::array<struct iovec, UIO_MAXIOV> pieces;
    const size_t needed = static_cast<size_t>(most) / bytes.size() + 1;
    struct msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = std::min(needed, pieces.size());
    std::fill_n(pieces.begin(), message.msg_iovlen,
                iovec{.iov_base = bytes.data(), .iov_len = bytes.size()});
    const ssize_t count = recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
    if (count == -1 && errno != EAGAIN) error = errno;
    return std::max<int64_t>(count, 0);
}

bool hasCountedBytes(int fd) noexcept {
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0;
}

bool isReadable(int fd) noexcept {
    struct pollfd state = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&state, 1, 0) == 1;
}

int64_t writableBytes(int fd, DescriptorKind kind) noexcept {
    const auto room = [&]() -> int64_t {
        switch (kind) {
            case DescriptorKind::TcpSocket:
                return tcpRoom(fd);
            case DescriptorKind::UnixSocket:
                return unixRoom(sendBufferSize(fd));
            case DescriptorKind::OtherSocket:
                return sendBufferSize(fd) / kTcpChargePerByte;
            case DescriptorKind::Pipe:
                return PIPE_BUF;  // pipe(7): it polls writable while that much fits
            case DescriptorKind::Terminal:
                return kTerminalRoom;
            case DescriptorKind::RegularFile:
            case DescriptorKind::NullDevice:
            case DescriptorKind::OtherDevice:
                return std::numeric_limits<int64_t>::max();
            default:
                return 1;
        }
    };
    return std::max<int64_t>(room(), 1);
}

std::optional<int64_t> leastWritableBytes(int fd, DescriptorKind kind) noexcept {
    if (kind == DescriptorKind::UnixSocket) return unixRoom(kLeastSendBuffer);
    if (kind == DescriptorKind::TcpSocket && unsentLimit(fd) / 2 >= kLeastTcpRoom)
        return kLeastTcpRoom;
    return std::nullopt;
}

bool isListening(int fd) noexcept {
    int listens = 0;
    socklen_t length = sizeof listens;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 && listens != 0;
}

int takeSocketError(int fd) noexcept {
    int error = 0;
    return socketOption(fd, SOL_SOCKET, SO_ERROR, error) ? error : 0;
}

bool isUnconnectedTcp(int fd) noexcept {
    struct pollfd state = {.fd = fd, .events = POLLRDHUP, .revents = 0};
    return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLRDHUP)) == POLLHUP;
}

}  // namespace epollqueue
