#include "tests/support/captured_stream.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace {

// A file without a name.
int makeFile() {
    std::array<char, 32> path{"/tmp/captured_stream_XXXXXX"};
    const int fd = mkstemp(path.data());
    if (fd == -1) throw std::runtime_error("mkstemp failed");
    unlink(path.data());
    return fd;
}

}  // namespace

CapturedStream::CapturedStream(std::FILE* stream_) : stream(stream_), collected(makeFile()) {
    std::fflush(stream);
    original = dup(fileno(stream));
    dup2(collected, fileno(stream));
}

CapturedStream::~CapturedStream() {
    std::fflush(stream);
    dup2(original, fileno(stream));
    close(original);
    close(collected);
}

std::string CapturedStream::take() {
    std::fflush(stream);
    std::string bytes;
    std::array<char, 65536> piece{};
    ssize_t size = 0;
    while ((size = pread(collected, piece.data(), piece.size(), taken)) > 0) {
        bytes.append(piece.data(), static_cast<size_t>(size));
        taken += size;
    }
    return bytes;
}
