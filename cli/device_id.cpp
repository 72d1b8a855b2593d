#include "cli/device_id.h"

#include <cstdlib>

namespace {

// strtoul alone would take white space and a sign. False without a digit at text; end is then
// untouched.
bool readNumber(const char* text, unsigned long& number, char*& end) {
    if (*text < '0' || *text > '9') return false;
    number = std::strtoul(text, &end, 10);
    return true;
}

}  // namespace

int arg2deviceId(const char* text, uint32_t& serverIdOut, uint32_t& deviceIdOut) {
    unsigned long first = 0;
    unsigned long second = 0;
    char* end = nullptr;
    if (!readNumber(text, first, end)) return -1;
    if (*end == '\0') {
        deviceIdOut = static_cast<uint32_t>(first);
        return 0;
    }
    if (*end != ':' || !readNumber(end + 1, second, end) || *end != '\0') return -1;
    serverIdOut = static_cast<uint32_t>(first);
    deviceIdOut = static_cast<uint32_t>(second);
    return 1;
}
