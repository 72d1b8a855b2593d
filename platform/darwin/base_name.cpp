#include "platform/base_name.h"

#include <libgen.h>
#include <sys/param.h>

static_assert(kBaseNameSize == MAXPATHLEN);  // what basename_r may write

void baseName(const char* path, char (&out)[kBaseNameSize]) noexcept {
    basename_r(path, out);
}
