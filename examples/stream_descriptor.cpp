#include "examples/stream_descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

const char* objectionTo(int fd, Direction direction) noexcept {
    const int flags = fcntl(fd, F_GETFL);
    struct stat file {};
    if (flags == -1 || fstat(fd, &file) == -1) return "is closed";
    if (S_ISDIR(file.st_mode)) return "is a directory";
    if (S_ISBLK(file.st_mode)) return "is a block device";
    const int mode = flags & O_ACCMODE;
    if (direction == Direction::Reading && mode == O_WRONLY) return "is not open for reading";
    if (direction == Direction::Writing && mode == O_RDONLY) return "is not open for writing";
    return nullptr;
}

bool areTheSameFile(int in, int out) noexcept {
    struct stat source {};
    struct stat target {};
    return fstat(in, &source) == 0 && fstat(out, &target) == 0 && isRegularFile(in) &&
           source.st_dev == target.st_dev && source.st_ino == target.st_ino;
}

bool isRegularFile(int fd) noexcept {
    struct stat file {};
    return fstat(fd, &file) == 0 && S_ISREG(file.st_mode);
}

bool isFileAtEnd(int fd) noexcept {
    struct stat file {};
    return isRegularFile(fd) && fstat(fd, &file) == 0 && lseek(fd, 0, SEEK_CUR) >= file.st_size;
}

// A read takes it that asks for a byte, and gets none.
void takeEndOfFile(int fd) noexcept {
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    char none = 0;
    if (isatty(fd) == 0 || poll(&waiting, 1, 0) != 1) return;
    [[maybe_unused]] const ssize_t size = read(fd, &none, 1);
}

void keepOthersOffStandardError() noexcept {
    if (fcntl(STDERR_FILENO, F_GETFD) == -1) open("/dev/null", O_WRONLY);
}

BlockingMode::BlockingMode(int descriptor) noexcept : fd(descriptor), flags(fcntl(fd, F_GETFL)) {
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

BlockingMode::~BlockingMode() {
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, flags);
}
