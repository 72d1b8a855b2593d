#include "tests/platform/kernel_queue.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

void pass(int milliseconds) {
    const struct timespec pause = {.tv_sec = milliseconds / 1'000,
                                   .tv_nsec = milliseconds % 1'000 * kMillisecond};
    nanosleep(&pause, nullptr);
}

void Descriptor::reset() {
    if (fd != -1) close(std::exchange(fd, -1));
}

static Pair socketPair(int type) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Pair unixPair() {
    return socketPair(SOCK_STREAM);
}

Pair datagramPair() {
    return socketPair(SOCK_DGRAM);
}

Descriptor tcpListener(uint16_t& port) {
    Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener, 128), 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length), 0);
    port = ntohs(address.sin_port);
    return listener;
}

int connectSocket(int fd, uint16_t port) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
}

Descriptor connectTo(uint16_t port, bool blocking) {
    Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
    if (!blocking) fcntl(client, F_SETFL, O_NONBLOCK);
    const int result = connectSocket(client, port);
    EXPECT_TRUE(result == 0 || (!blocking && (errno == EINPROGRESS || errno == ECONNREFUSED)));
    fcntl(client, F_SETFL, 0);
    return client;
}

Pair tcpPair() {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    Descriptor client = connectTo(port);
    Descriptor accepted(accept(listener, nullptr, nullptr));
    return {std::move(client), std::move(accepted)};
}

Pair pipePair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Pair writablePipePair() {
    Pair pair = pipePair();
    std::swap(pair.ours, pair.peer);
    return pair;
}

Pair fifoPair(int ours, int peer) {
    std::string path = testing::TempDir() + "fifo-XXXXXX";
    EXPECT_NE(mkdtemp(path.data()), nullptr);
    const std::string name = path + "/fifo";
    EXPECT_EQ(mkfifo(name.c_str(), 0600), 0);
    Descriptor first(open(name.c_str(), ours));
    Descriptor second(peer == -1 ? -1 : open(name.c_str(), peer));
    unlink(name.c_str());
    rmdir(path.c_str());
    return {std::move(first), std::move(second)};
}

Descriptor emptyFile() {
    std::string path = testing::TempDir() + "file-XXXXXX";
    Descriptor file(mkstemp(path.data()));
    unlink(path.c_str());
    return file;
}

void setRaw(int terminal) {
    struct termios mode = {};
    ASSERT_EQ(tcgetattr(terminal, &mode), 0);
    cfmakeraw(&mode);
    ASSERT_EQ(tcsetattr(terminal, TCSANOW, &mode), 0);
}

Pair terminalPair() {
    Descriptor master(posix_openpt(O_RDWR | O_NOCTTY));
    if (master == -1 || grantpt(master) != 0 || unlockpt(master) != 0) return {};
    Descriptor terminal(open(ptsname(master), O_RDWR | O_NOCTTY));
    return {std::move(terminal), std::move(master)};
}

struct kevent makeChange(int fd, int filter, int flags, void* udata) {
    struct kevent change;
    EV_SET(&change, fd, static_cast<int16_t>(filter), flags, 0, 0, udata);
    return change;
}

void send(int fd, const std::string& bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string receive(int fd, size_t size) {
    std::string bytes(size, '\0');
    const ssize_t count = read(fd, bytes.data(), size);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

void fillUp(int fd, size_t piece) {
    const std::string bytes(piece, 'x');
    fcntl(fd, F_SETFL, O_NONBLOCK);
    while (::write(fd, bytes.data(), bytes.size()) > 0) {
    }
    fcntl(fd, F_SETFL, 0);
}

KernelQueueTest::KernelQueueTest() : queue(kqueue()) {
    EXPECT_NE(queue, -1);
}

int KernelQueueTest::change(uint64_t ident, int filter, int flags, int64_t data, void* udata) {
    struct kevent change;
    EV_SET(&change, ident, static_cast<int16_t>(filter), flags,
           filter == EVFILT_TIMER ? NOTE_BACKGROUND : 0, data, udata);
    return kevent(queue, &change, 1, nullptr, 0, nullptr) == 0 ? 0 : errno;
}

void KernelQueueTest::add(int fd, int filter, void* udata) {
    ASSERT_EQ(change(static_cast<uint64_t>(fd), filter, EV_ADD | EV_ENABLE, 0, udata), 0);
}

void KernelQueueTest::remove(int fd, int filter) {
    ASSERT_EQ(change(static_cast<uint64_t>(fd), filter, EV_DELETE), 0);
}

Records KernelQueueTest::wait(size_t room, int milliseconds) {
    Records records(room);
    const struct timespec timeout = {.tv_sec = milliseconds / 1000,
                                     .tv_nsec = milliseconds % 1000 * 1'000'000L};
    const int count = kevent(queue, nullptr, 0, records.data(), static_cast<int>(room), &timeout);
    EXPECT_NE(count, -1);
    records.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return records;
}

struct kevent KernelQueueTest::waitForOne() {
    const Records records = wait();
    EXPECT_EQ(records.size(), 1U);
    return records.empty() ? decltype(Records())::value_type{} : records.front();
}
