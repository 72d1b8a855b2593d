#include "fuzz/support/open_descriptors.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/event.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "fuzz/support/oracle.h"

namespace {

constexpr int kMostPieces = 100;
constexpr int kPatienceMs = 5'000;

void ignore(ssize_t /*result*/) {}

// To what the system makes of a wish for the least.
void shrinkBuffers(int fd) {
    const int least = 1;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
}

// Nobody outside this machine reaches it.
int makeListener() {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    require(fd != -1 &&
                bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 &&
                listen(fd, 8) == 0,
            "a listener is to be had");
    return fd;
}

// Of all TCP pairs. Never closed.
int sharedListener() {
    static const int listener = makeListener();
    return listener;
}

// What is closed leaves no connection behind that waits for its time: the ports would run out.
void closeAtOnce(int fd) {
    const struct linger now = {.l_onoff = 1, .l_linger = 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

int connectTo(int listener) {
    struct sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &size);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    require(connect(fd, reinterpret_cast<const struct sockaddr*>(&address), size) == 0,
            "a connection is to be had");
    fcntl(fd, F_SETFL, O_NONBLOCK);
    closeAtOnce(fd);
    return fd;
}

// The fuzzer's timer interrupts calls.
void waitForClient(int listener) {
    struct pollfd state = {.fd = listener, .events = POLLIN, .revents = 0};
    int found = -1;
    while ((found = poll(&state, 1, kPatienceMs)) == -1 && errno == EINTR) {
    }
    require(found == 1, "a connection arrives");
}

int peekedBytes(int fd) {
    static std::vector<char> bytes(kMostPeeked);
    const ssize_t count = recv(fd, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    return static_cast<int>(std::max<ssize_t>(count, 0));
}

int fileRemainder(int fd) {
    struct stat status = {};
    fstat(fd, &status);
    return static_cast<int>(std::max<off_t>(status.st_size - lseek(fd, 0, SEEK_CUR), 0));
}

}  // namespace

void prepareDescriptors() {
    sharedListener();
}

bool hasEnded(DescriptorKind kind, const DescriptorStatus& status, int16_t filter) {
    if (kind == DescriptorKind::Null) return filter == EVFILT_READ;
    return status.has(filter == EVFILT_READ ? POLLRDHUP | POLLHUP | POLLERR : POLLHUP | POLLERR);
}

bool isReady(DescriptorKind kind, const DescriptorStatus& status, int16_t filter) {
    if (hasEnded(kind, status, filter)) return true;
    if (filter == EVFILT_WRITE) return isAlwaysReady(kind) || status.has(POLLOUT);
    return status.bytes > 0 && (isAlwaysReady(kind) || status.has(POLLIN));
}

OpenDescriptors::~OpenDescriptors() {
    for (const auto& [fd, descriptor] : open)
        ::close(fd);
}

void OpenDescriptors::openPair(DescriptorKind kind, bool small) {
    int fds[2] = {-1, -1};
    switch (kind) {
        case DescriptorKind::UnixStream:
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds);
            break;
        case DescriptorKind::UnixDatagram:
            socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds);
            break;
        case DescriptorKind::Tcp:
            return openTcpPair(small);
        case DescriptorKind::Pipe:
            require(pipe2(fds, O_NONBLOCK) == 0, "a pipe is to be had");
            break;
        case DescriptorKind::File:
            return add(memfd_create("file", 0), kind, false);
        case DescriptorKind::Null:
            return add(::open("/dev/null", O_RDWR | O_CLOEXEC), kind, false);
        case DescriptorKind::Listener: {
            const int listener = makeListener();
            add(listener, kind, false);
            return add(connectTo(listener), DescriptorKind::Tcp, small);
        }
    }
    add(fds[0], kind, small);
    add(fds[1], kind, small);
}

void OpenDescriptors::duplicate(int fd) {
    add(dup(fd), open.at(fd).kind, false);
}

void OpenDescriptors::close(int fd) {
    open.erase(fd);
    ::close(fd);
}

void OpenDescriptors::read(int fd, size_t size) {
    static std::array<char, 65536> bytes;
    ignore(::read(fd, bytes.data(), std::min(size, bytes.size())));
}

void OpenDescriptors::write(int fd, std::string_view bytes) {
    ignore(::write(fd, bytes.data(), bytes.size()));
}

// In as many pieces as a small buffer takes.
void OpenDescriptors::fill(int fd, std::string_view piece) {
    for (int i = 0; i<kMostPieces&& ::write(fd, piece.data(), piece.size())> 0; ++i) {
    }
}

void OpenDescriptors::sendOutOfBand(int fd) {
    if (!isStreamSocket(open.at(fd).kind)) return;
    outOfBand = true;
    ignore(send(fd, "!", 1, MSG_OOB));
}

// A listener that is shut is a socket without a connection, of which nothing is known here.
void OpenDescriptors::shutDown(int fd, int how) {
    if (open.at(fd).kind != DescriptorKind::Listener) shutdown(fd, how);
}

void OpenDescriptors::moveTo(int fd, off_t position) {
    if (open.at(fd).kind == DescriptorKind::File) lseek(fd, position, SEEK_SET);
}

const OpenDescriptor* OpenDescriptors::find(int fd) const {
    const auto found = open.find(fd);
    return found == open.end() ? nullptr : &found->second;
}

bool OpenDescriptors::hasRelative(int fd) const {
    const OpenDescriptor& own = open.at(fd);
    return std::any_of(open.begin(), open.end(), [&](const auto& other) {
        return other.first != fd && other.second.inode == own.inode &&
               other.second.device == own.device;
    });
}

OpenDescriptors::Statuses OpenDescriptors::statuses() const {
    Statuses statuses;
    for (const auto& [fd, descriptor] : open) {
        struct pollfd state = {
            .fd = fd, .events = POLLIN | POLLOUT | POLLRDHUP | POLLPRI, .revents = 0};
        // The fuzzer's own clock interrupts it now and then.
        while (poll(&state, 1, 0) == -1)
            require(errno == EINTR, "poll answers");
        statuses[fd] = {.polled = state.revents,
                        .bytes = readableBytes(fd, descriptor.kind, state.revents)};
    }
    return statuses;
}

void OpenDescriptors::add(int fd, DescriptorKind kind, bool small) {
    struct stat status = {};
    require(fstat(fd, &status) == 0, "a descriptor is to be had");
    open[fd] = {.kind = kind, .device = status.st_dev, .inode = status.st_ino};
    if (small) shrinkBuffers(fd);
}

void OpenDescriptors::openTcpPair(bool small) {
    const int listener = sharedListener();
    const int one = connectTo(listener);
    waitForClient(listener);
    const int other = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    require(other != -1, "a connection is accepted");
    closeAtOnce(other);
    add(one, DescriptorKind::Tcp, small);
    add(other, DescriptorKind::Tcp, small);
}

// FIONREAD is no help behind a byte that was sent out of band, and to peek takes a pending error.
int OpenDescriptors::readableBytes(int fd, DescriptorKind kind, short polled) const {
    if (kind == DescriptorKind::File) return fileRemainder(fd);
    if (kind == DescriptorKind::Listener) return (polled & POLLIN) != 0 ? 1 : 0;
    if (outOfBand && isStreamSocket(kind) && (polled & POLLERR) == 0) return peekedBytes(fd);
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : 0;
}
