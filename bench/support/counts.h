// Counts on a benchmark's command line.
#pragma once

#include <string_view>

// A number from 1 on; anything else ends the program with status 2, and a line that begins with its
// name.
[[nodiscard]] int readCount(const char* program, std::string_view text);
