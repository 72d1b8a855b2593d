#include "platform/log_system.h"

#include <os/log.h>

namespace {

os_log_type_t typeOf(LogLevel level) noexcept {
    return level == LogLevel::Error ? OS_LOG_TYPE_ERROR : OS_LOG_TYPE_DEBUG;
}

}  // namespace

// Handles are never freed (os_log_create(3)), and equal ones are the same.
void* systemLogCreate(const char* subsystem, const char* category) noexcept {
    return os_log_create(subsystem, category);
}

// A person changes what is logged with log(1), not the program.
bool systemLogEnabled(const void* log, LogLevel level, LogLevel /*least*/) noexcept {
    return os_log_type_enabled(static_cast<os_log_t>(const_cast<void*>(log)), typeOf(level));
}

void systemLogWrite(void* log, LogLevel level, const char* /*subsystem*/, const char* /*category*/,
                    const char* message) noexcept {
    os_log_with_type(static_cast<os_log_t>(log), typeOf(level), "%{public}s", message);
}
