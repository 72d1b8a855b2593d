// The system's own log, as platform/log.cpp writes to it. Internal to platform/.
#pragma once

#include "platform/log.h"

// What the system knows a subsystem and category by, kept for the life of the process; null
// where the system needs no such thing.
[[nodiscard]] void* systemLogCreate(const char* subsystem, const char* category) noexcept;

// least is what logSetLevel asked for; a system with settings of its own may overrule it.
[[nodiscard]] bool systemLogEnabled(const void* log, LogLevel level, LogLevel least) noexcept;

void systemLogWrite(void* log, LogLevel level, const char* subsystem, const char* category,
                    const char* message) noexcept;
