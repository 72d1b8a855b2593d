#include "cli/report_writer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <iterator>

namespace {

// Standard output may be non-blocking, because another program that has it open wants it so.
bool mayGoOn(int fd, int error) noexcept {
    if (error == EINTR) return true;
    if (error != EAGAIN) return false;
    struct pollfd room = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&room, 1, -1) == 1 || errno == EINTR;
}

}  // namespace

ReportWriter& ReportWriter::text(std::string_view bytes) noexcept {
    append(bytes.data(), bytes.substr(0, bytes.find('\0')).size());
    return *this;
}

ReportWriter& ReportWriter::decimal(uint32_t number) noexcept {
    char digits[10];
    const char* end = std::to_chars(digits, std::end(digits), number).ptr;
    append(digits, static_cast<size_t>(end - digits));
    return *this;
}

ReportWriter& ReportWriter::hex(uint16_t number) noexcept {
    constexpr const char* kDigits = "0123456789abcdef";
    const char digits[4] = {kDigits[number >> 12], kDigits[number >> 8 & 0xf],
                            kDigits[number >> 4 & 0xf], kDigits[number & 0xf]};
    append(digits, sizeof digits);
    return *this;
}

void ReportWriter::flush() noexcept {
    passOn(buffer.data(), used);
    used = 0;
}

void ReportWriter::appendBeyond(const char* bytes, size_t size) noexcept {
    flush();
    if (size > buffer.size())
        passOn(bytes, size);
    else
        append(bytes, size);
}

// Not through the stream's own buffer, which is lost with the first write that is refused.
void ReportWriter::passOn(const char* bytes, size_t size) noexcept {
    std::fflush(stream);
    const int fd = fileno(stream);
    while (size > 0 && !failed) {
        const ssize_t written = ::write(fd, bytes, size);
        failed = written == -1 && !mayGoOn(fd, errno);
        if (written > 0) {
            bytes += written;
            size -= static_cast<size_t>(written);
        }
    }
}
