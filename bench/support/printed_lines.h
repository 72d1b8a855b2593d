// How much a report has printed.
#pragma once

#include <cstddef>
#include <cstdio>

// Of a file that was opened for reading too, from its beginning, with what is in the stream's
// buffer. A failure ends the benchmark.
[[nodiscard]] size_t countLines(std::FILE* file);
