#include "platform/log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <new>
#include <utility>

#include "platform/log_system.h"

namespace {

constexpr size_t kMaxLine = 1024;

struct Settings {
    std::mutex lock;
    std::shared_ptr<const LogSink> sink;  // guarded by lock
    std::atomic<bool> hasSink{false};
    std::atomic<LogLevel> least{LogLevel::Error};
};

// Never destroyed: exit runs destructors while the I/O thread may still be logging. In static
// storage, because the first line may be about memory that has run out.
Settings& settings() {
    alignas(Settings) static std::byte storage[sizeof(Settings)];
    static Settings& shared = *new (storage) Settings;
    return shared;
}

std::shared_ptr<const LogSink> currentSink() {
    const std::lock_guard guard(settings().lock);
    return settings().sink;
}

[[gnu::format(printf, 2, 0)]] void formatLine(char (&line)[kMaxLine], const char* format,
                                              va_list arguments) {
    if (std::vsnprintf(line, sizeof line, format, arguments) < 0) line[0] = '\0';
}

}  // namespace

LogHandle::LogHandle(const char* subsystem_, const char* category_)
    : subsystem(subsystem_),
      category(category_),
      systemLog(systemLogCreate(subsystem_, category_)) {}

bool LogHandle::isEnabled(LogLevel level) const noexcept {
    const LogLevel least = settings().least.load(std::memory_order_relaxed);
    if (settings().hasSink.load(std::memory_order_acquire)) return level >= least;
    return systemLogEnabled(systemLog, level, least);
}

void LogHandle::debug(const char* format, ...) const noexcept {
    if (!isEnabled(LogLevel::Debug)) return;
    char line[kMaxLine];
    va_list arguments;
    va_start(arguments, format);
    formatLine(line, format, arguments);
    va_end(arguments);
    emit(LogLevel::Debug, line);
}

void LogHandle::error(const char* format, ...) const noexcept {
    if (!isEnabled(LogLevel::Error)) return;
    char line[kMaxLine];
    va_list arguments;
    va_start(arguments, format);
    formatLine(line, format, arguments);
    va_end(arguments);
    emit(LogLevel::Error, line);
}

void LogHandle::emit(LogLevel level, const char* message) const noexcept {
    const int savedErrno = errno;
    if (const auto sink = currentSink())
        (*sink)(level, subsystem, category, message);
    else
        systemLogWrite(systemLog, level, subsystem.c_str(), category.c_str(), message);
    errno = savedErrno;
}

std::shared_ptr<const LogHandle> logCreate(const char* subsystem, const char* category) noexcept {
    try {
        return std::make_shared<const LogHandle>(subsystem, category);
    } catch (const std::bad_alloc&) {
        // Empty names fit the strings' own storage, so this needs no memory either.
        alignas(LogHandle) static std::byte storage[sizeof(LogHandle)];
        static const LogHandle& nameless = *new (storage) LogHandle("", "");
        return {std::shared_ptr<const LogHandle>(), &nameless};
    }
}

void logSetSink(LogSink sink) {
    std::shared_ptr<const LogSink> next;
    if (sink) next = std::make_shared<const LogSink>(std::move(sink));
    const std::lock_guard guard(settings().lock);
    settings().hasSink.store(next != nullptr, std::memory_order_release);
    settings().sink = std::move(next);
}

void logSetLevel(LogLevel least) noexcept {
    settings().least.store(least, std::memory_order_relaxed);
}
