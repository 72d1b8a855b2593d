#include "platform/base_name.h"

#include <libgen.h>

#include <cstring>

// POSIX' basename may cut the text it is given and answers with a pointer into it.
void baseName(const char* path, char (&out)[kBaseNameSize]) noexcept {
    char scratch[kBaseNameSize];
    const size_t size = std::strlen(path) + 1;
    if (size > sizeof scratch) return;
    std::memcpy(scratch, path, size);
    const char* name = basename(scratch);
    std::memcpy(out, name, std::strlen(name) + 1);
}
