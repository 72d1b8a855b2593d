#include "bench/support/counts.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <system_error>

int readCount(const char* program, std::string_view text) {
    int count = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), count);
    if (error == std::errc() && end == text.end() && count > 0) return count;
    std::fprintf(stderr, "%s: not a count: %.*s\n", program, static_cast<int>(text.size()),
                 text.data());
    std::exit(2);
}
