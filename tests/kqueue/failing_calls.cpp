#include "tests/kqueue/failing_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>

FailingCalls failingCalls;

namespace {

// Sets errno and takes the failure back when there is one.
bool fails(std::atomic<int>& error) {
    const int number = error.exchange(0);
    if (number != 0) errno = number;
    return number != 0;
}

}  // namespace

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);
int __real_socket(int domain, int type, int protocol);
int __real_epoll_create1(int flags);
int __real_listen(int sock, int backlog);
int __real_accept(int sock, struct sockaddr* address, socklen_t* length);
int __real_getsockopt(int sock, int level, int name, void* value, socklen_t* length);
int __real_setsockopt(int sock, int level, int name, const void* value, socklen_t length);
int __real_chmod(const char* path, mode_t mode);
int __wrap_close(int fd);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_epoll_create1(int flags);
int __wrap_listen(int sock, int backlog);
int __wrap_accept(int sock, struct sockaddr* address, socklen_t* length);
int __wrap_getsockopt(int sock, int level, int name, void* value, socklen_t* length);
int __wrap_setsockopt(int sock, int level, int name, const void* value, socklen_t length);
int __wrap_chmod(const char* path, mode_t mode);

int __wrap_close(int fd) {
    if (fd == failingCalls.watched) ++failingCalls.closesOfWatched;
    return __real_close(fd);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const int argument = command == F_SETFL ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (command == F_GETFL && fails(failingCalls.getFlags)) return -1;
    if (command == F_SETFL && fails(failingCalls.setFlags)) return -1;
    if (command == F_SETFL && (argument & O_NONBLOCK) == 0 && fails(failingCalls.setBlocking))
        return -1;
    return __real_fcntl(fd, command, argument);
}

int __wrap_socket(int domain, int type, int protocol) {
    return fails(failingCalls.socket) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_epoll_create1(int flags) {
    return fails(failingCalls.createQueue) ? -1 : __real_epoll_create1(flags);
}

int __wrap_listen(int sock, int backlog) {
    return fails(failingCalls.listen) ? -1 : __real_listen(sock, backlog);
}

int __wrap_accept(int sock, struct sockaddr* address, socklen_t* length) {
    return fails(failingCalls.accept) ? -1 : __real_accept(sock, address, length);
}

int __wrap_getsockopt(int sock, int level, int name, void* value, socklen_t* length) {
    if (level == SOL_SOCKET && name == SO_PEERCRED && fails(failingCalls.peerCredentials))
        return -1;
    return __real_getsockopt(sock, level, name, value, length);
}

int __wrap_setsockopt(int sock, int level, int name, const void* value, socklen_t length) {
    if (fails(failingCalls.setOption)) return -1;
    return __real_setsockopt(sock, level, name, value, length);
}

int __wrap_chmod(const char* path, mode_t mode) {
    return fails(failingCalls.changeMode) ? -1 : __real_chmod(path, mode);
}

// The C++ library calls this one, so it is replaced rather than wrapped.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
    if (fails(failingCalls.createThread)) return errno;
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, routine, argument);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
