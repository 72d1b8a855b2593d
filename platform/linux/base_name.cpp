#include "platform/base_name.h"

#include <libgen.h>

#include <cstring>

// POSIX' basename may cut the text it is given and answers with a pointer into it.
void baseName(const char* path, char (&out)[kBaseNameSize]) noexcept {
    char scratch[kBaseNameSize];
    if (std::strlen(path) >= sizeof scratch) return;
    std::strcpy(scratch, path);
    std::strcpy(out, basename(scratch));
}
