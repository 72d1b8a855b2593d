#include "platform/options.h"

#include <unistd.h>

// The system's own getopt follows the POSIX rule.
int posixGetopt(int count, char* const arguments[], const char* options) {
    return getopt(count, arguments, options);
}
