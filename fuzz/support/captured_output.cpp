#include "fuzz/support/captured_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/support/oracle.h"

CapturedOutput::CapturedOutput(std::FILE*& stream_) : stream(stream_), original(stream_) {
    stream = fdopen(memfd_create("captured", MFD_CLOEXEC), "w+");
    if (stream == nullptr) refute("there is memory for a stream");
}

CapturedOutput::~CapturedOutput() {
    std::fclose(stream);
    stream = original;
}

std::string CapturedOutput::take() {
    std::fflush(stream);
    const int fd = fileno(stream);
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_CUR)), '\0');
    if (pread(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        refute("what was written can be read");
    std::rewind(stream);
    return text;
}
