#include "platform/log_system.h"

#include <syslog.h>

void* systemLogCreate(const char* /*subsystem*/, const char* /*category*/) noexcept {
    return nullptr;
}

bool systemLogEnabled(const void* /*log*/, LogLevel level, LogLevel least) noexcept {
    return level >= least;
}

// openlog(3) belongs to the program, so the subsystem goes into the line itself.
void systemLogWrite(void* /*log*/, LogLevel level, const char* subsystem, const char* category,
                    const char* message) noexcept {
    const int priority = level == LogLevel::Error ? LOG_ERR : LOG_DEBUG;
    syslog(LOG_USER | priority, "[%s:%s] %s", subsystem, category, message);
}
