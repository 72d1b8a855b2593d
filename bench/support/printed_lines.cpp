#include "bench/support/printed_lines.h"

#include "bench/support/program.h"

size_t countLines(std::FILE* file) {
    if (std::fflush(file) != 0 || std::fseek(file, 0, SEEK_SET) != 0) fail("what is printed");
    size_t lines = 0;
    for (int byte = std::getc(file); byte != EOF; byte = std::getc(file))
        if (byte == '\n') ++lines;
    if (std::ferror(file) != 0) fail("what is printed");
    return lines;
}
