#include "examples/stream_descriptor.h"

#include <fcntl.h>
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
    return fstat(fd, &file) == 0 && S_ISREG(file.st_mode) && lseek(fd, 0, SEEK_CUR) >= file.st_size;
}

BlockingMode::BlockingMode(int descriptor) noexcept : fd(descriptor), flags(fcntl(fd, F_GETFL)) {
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

BlockingMode::~BlockingMode() {
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, flags);
}
