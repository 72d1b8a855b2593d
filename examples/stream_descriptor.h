// What a program has to know of a descriptor that it was given before it makes a stream of it.
#pragma once

enum class Direction { Reading, Writing };

// Why no stream can be made of the descriptor, to be put behind its name, or null.
[[nodiscard]] const char* objectionTo(int fd, Direction direction) noexcept;

// Whether writing to one would go on without end what is read from the other.
[[nodiscard]] bool areTheSameFile(int in, int out) noexcept;

[[nodiscard]] bool isRegularFile(int fd) noexcept;

// Whether it is a regular file that has been read to its end. A stream says nothing of that.
[[nodiscard]] bool isFileAtEnd(int fd) noexcept;

// Streams take descriptors in blocking mode. Whoever shares this one may have made it
// non-blocking, and gets that mode back in the end.
class BlockingMode {
public:
    explicit BlockingMode(int descriptor) noexcept;
    BlockingMode(const BlockingMode&) = delete;
    BlockingMode& operator=(const BlockingMode&) = delete;
    ~BlockingMode();

private:
    const int fd;
    const int flags;
};
