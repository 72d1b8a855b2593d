// Builds a report's lines in a buffer of its own and writes them in large pieces to the file that a
// C stream stands for, behind what the stream was given before. A report may have millions of
// lines: nothing is allocated, and no format is interpreted.
//
// Threads    one at a time.
// Errors     none are told: from the first byte on that the file does not take, all is lost. A file
//            that takes nothing at the moment is waited for, also in non-blocking mode.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

class ReportWriter {
public:
    // out outlives the writer.
    explicit ReportWriter(std::FILE* out) noexcept : stream(out) {}
    ReportWriter(const ReportWriter&) = delete;
    ReportWriter& operator=(const ReportWriter&) = delete;
    ~ReportWriter() { flush(); }

    // As "%s": byte for byte, up to the first NUL if there is one.
    ReportWriter& text(std::string_view bytes) noexcept;

    // What a report consists of besides: a text of the program's own, without a NUL.
    template <size_t size>
    ReportWriter& literal(const char (&bytes)[size]) noexcept {
        append(bytes, size - 1);
        return *this;
    }

    // As "%u".
    ReportWriter& decimal(uint32_t number) noexcept;

    // As "%04x": four digits, lower-case.
    ReportWriter& hex(uint16_t number) noexcept;

    // Writes what is still in the buffer.
    void flush() noexcept;

private:
    void append(const char* bytes, size_t size) noexcept {
        if (size <= buffer.size() - used) {
            std::memcpy(buffer.data() + used, bytes, size);
            used += size;
        } else {
            appendBeyond(bytes, size);
        }
    }

    void appendBeyond(const char* bytes, size_t size) noexcept;
    void passOn(const char* bytes, size_t size) noexcept;

    std::FILE* stream;
    bool failed = false;
    size_t used = 0;
    std::array<char, 65536> buffer;  // as much as a pipe holds
};
