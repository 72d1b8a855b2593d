#include "platform/base_name.h"

#include <string_view>

// basename(3) may cut the text it is given, and its name may lie in that text or elsewhere.
void baseName(const char* path, char (&out)[kBaseNameSize]) noexcept {
    std::string_view name = path;
    while (name.size() > 1 && name.ends_with('/'))
        name.remove_suffix(1);
    if (name.empty()) name = ".";
    if (name != "/") name.remove_prefix(name.rfind('/') + 1);
    if (name.size() >= sizeof out) return;
    out[name.copy(out, name.size())] = '\0';
}
