#include "cli/report_writer.h"

#include <charconv>
#include <iterator>

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
    std::fwrite(buffer.data(), 1, used, stream);
    used = 0;
}

void ReportWriter::appendBeyond(const char* bytes, size_t size) noexcept {
    flush();
    if (size > buffer.size())
        std::fwrite(bytes, 1, size, stream);
    else
        append(bytes, size);
}
