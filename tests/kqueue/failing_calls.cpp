#include "tests/kqueue/failing_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

FailingCalls failingCalls;

bool FailingCall::fails() noexcept {
    if (number == 0 || ++made != failing) return false;
    errno = number.exchange(0);
    return true;
}

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl50-cpp,cert-dcl51-cpp)
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int __real_close(int fd);
int __real_shutdown(int sock, int how);
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_getsockopt(int sock, int level, int name, void* value, socklen_t* length);
long __real_syscall(long number, ...);
unsigned __real_sleep(unsigned seconds);
int __real_bind(int sock, const struct sockaddr* address, socklen_t length);
int __real_socket(int domain, int type, int protocol);
int __real_listen(int sock, int backlog);
int __real_accept(int sock, struct sockaddr* address, socklen_t* length);
int __real_connect(int sock, const struct sockaddr* address, socklen_t length);
ssize_t __real_read(int fd, void* bytes, size_t size);
ssize_t __real_recvmsg(int sock, struct msghdr* message, int flags);
int __real_unlink(const char* path);
int __real_chmod(const char* path, mode_t mode);
int __real_fstat(int fd, struct stat* out);
int __real_poll(struct pollfd* descriptors, nfds_t count, int timeout);
int __real_ppoll(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout,
                 const sigset_t* mask);
int __real_epoll_create1(int flags);
int __real_epoll_ctl(int queue, int operation, int fd, struct epoll_event* event);
int __real_epoll_wait(int queue, struct epoll_event* events, int room, int timeout);
int __real_setsockopt(int sock, int level, int name, const void* value, socklen_t length);
int __wrap_close(int fd);
int __wrap_shutdown(int sock, int how);
ssize_t __wrap_write(int fd, const void* bytes, size_t size);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_getsockopt(int sock, int level, int name, void* value, socklen_t* length);
long __wrap_syscall(long number, long first, long second, long third, long fourth, long fifth,
                    long sixth);
unsigned __wrap_sleep(unsigned seconds);
int __wrap_bind(int sock, const struct sockaddr* address, socklen_t length);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_listen(int sock, int backlog);
int __wrap_accept(int sock, struct sockaddr* address, socklen_t* length);
int __wrap_connect(int sock, const struct sockaddr* address, socklen_t length);
ssize_t __wrap_read(int fd, void* bytes, size_t size);
ssize_t __wrap_recvmsg(int sock, struct msghdr* message, int flags);
int __wrap_unlink(const char* path);
int __wrap_chmod(const char* path, mode_t mode);
int __wrap_fstat(int fd, struct stat* out);
int __wrap_poll(struct pollfd* descriptors, nfds_t count, int timeout);
int __wrap_ppoll(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout,
                 const sigset_t* mask);
int __wrap_epoll_create1(int flags);
int __wrap_epoll_ctl(int queue, int operation, int fd, struct epoll_event* event);
int __wrap_epoll_wait(int queue, struct epoll_event* events, int room, int timeout);
int __wrap_setsockopt(int sock, int level, int name, const void* value, socklen_t length);

int __wrap_close(int fd) {
    if (fd == failingCalls.watched) ++failingCalls.closesOfWatched;
    const bool fails = failingCalls.close.fails();
    const int error = errno;
    const int result = __real_close(fd);
    if (fails) errno = error;
    return fails ? -1 : result;
}

int __wrap_shutdown(int sock, int how) {
    const bool fails = failingCalls.shutDown.fails();
    const int error = errno;
    const int result = __real_shutdown(sock, how);
    if (fails) errno = error;
    return fails ? -1 : result;
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    if (!failingCalls.write.fails()) return __real_write(fd, bytes, size);
    return errno == kShort ? __real_write(fd, bytes, (size + 1) / 2) : -1;
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const int argument = command == F_SETFL ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (command == F_GETFL && failingCalls.getFlags.fails()) return -1;
    if (command == F_SETFL && failingCalls.setFlags.fails()) return -1;
    if (command == F_SETFL && (argument & O_NONBLOCK) == 0 && failingCalls.setBlocking.fails())
        return -1;
    return __real_fcntl(fd, command, argument);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return failingCalls.control.fails() ? -1 : __real_ioctl(fd, request, argument);
}

int __wrap_getsockopt(int sock, int level, int name, void* value, socklen_t* length) {
    const bool isPeer = level == SOL_SOCKET && name == SO_PEERCRED;
    if ((isPeer ? failingCalls.peerCredentials : failingCalls.getOption).fails()) return -1;
    return __real_getsockopt(sock, level, name, value, length);
}

// Whoever calls it gives as many arguments as the call has, at most six. The kernel looks at no
// more.
long __wrap_syscall(long number, long first, long second, long third, long fourth, long fifth,
                    long sixth) {
    if (number == SYS_epoll_pwait2 && failingCalls.wait.fails()) return -1;
    return __real_syscall(number, first, second, third, fourth, fifth, sixth);
}

unsigned __wrap_sleep(unsigned seconds) {
    if (!failingCalls.sleepsAreShort) return __real_sleep(seconds);
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = 1'000'000};
    nanosleep(&pause, nullptr);
    return 0;
}

int __wrap_bind(int sock, const struct sockaddr* address, socklen_t length) {
    return failingCalls.bind.fails() ? -1 : __real_bind(sock, address, length);
}

int __wrap_socket(int domain, int type, int protocol) {
    return failingCalls.socket.fails() ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_listen(int sock, int backlog) {
    return failingCalls.listen.fails() ? -1 : __real_listen(sock, backlog);
}

int __wrap_accept(int sock, struct sockaddr* address, socklen_t* length) {
    return failingCalls.accept.fails() ? -1 : __real_accept(sock, address, length);
}

int __wrap_connect(int sock, const struct sockaddr* address, socklen_t length) {
    return failingCalls.connect.fails() ? -1 : __real_connect(sock, address, length);
}

ssize_t __wrap_read(int fd, void* bytes, size_t size) {
    return failingCalls.read.fails() ? -1 : __real_read(fd, bytes, size);
}

ssize_t __wrap_recvmsg(int sock, struct msghdr* message, int flags) {
    return failingCalls.peek.fails() ? -1 : __real_recvmsg(sock, message, flags);
}

int __wrap_unlink(const char* path) {
    return failingCalls.unlink.fails() ? -1 : __real_unlink(path);
}

int __wrap_chmod(const char* path, mode_t mode) {
    return failingCalls.changeMode.fails() ? -1 : __real_chmod(path, mode);
}

int __wrap_fstat(int fd, struct stat* out) {
    return failingCalls.status.fails() ? -1 : __real_fstat(fd, out);
}

int __wrap_poll(struct pollfd* descriptors, nfds_t count, int timeout) {
    return failingCalls.poll.fails() ? -1 : __real_poll(descriptors, count, timeout);
}

int __wrap_ppoll(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout,
                 const sigset_t* mask) {
    return failingCalls.poll.fails() ? -1 : __real_ppoll(descriptors, count, timeout, mask);
}

int __wrap_epoll_create1(int flags) {
    return failingCalls.createQueue.fails() ? -1 : __real_epoll_create1(flags);
}

int __wrap_epoll_ctl(int queue, int operation, int fd, struct epoll_event* event) {
    return failingCalls.watch.fails() ? -1 : __real_epoll_ctl(queue, operation, fd, event);
}

int __wrap_epoll_wait(int queue, struct epoll_event* events, int room, int timeout) {
    return failingCalls.wait.fails() ? -1 : __real_epoll_wait(queue, events, room, timeout);
}

int __wrap_setsockopt(int sock, int level, int name, const void* value, socklen_t length) {
    return failingCalls.setOption.fails() ? -1
                                          : __real_setsockopt(sock, level, name, value, length);
}

// The C++ library calls this one, so it is replaced rather than wrapped.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
    if (failingCalls.createThread.fails()) return errno;
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, routine, argument);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl50-cpp,cert-dcl51-cpp)
