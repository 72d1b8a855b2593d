// Logging: one handle per subsystem and category, two levels, printf-style messages.
//
// A message is formatted only when its level is enabled. By default messages go to the system's
// log (Linux: syslog(3), which reaches the journal where there is one; macOS: unified logging),
// errors enabled and debug lines off. A program or a test can take the lines itself with
// logSetSink.
//
// Threads    everything here may be called from any thread.
// Errors     none: logging never fails as far as a caller can tell.
#pragma once

#include <functional>
#include <memory>
#include <string>

enum class LogLevel { Debug = 0, Error = 1 };

class LogHandle {
public:
    LogHandle(const char* subsystem, const char* category);

    [[nodiscard]] bool isEnabled(LogLevel level) const noexcept;

    // The format is printf's. Lines are cut after 1023 bytes. errno is left as it was.
    [[gnu::format(printf, 2, 3)]] void debug(const char* format, ...) const noexcept;
    [[gnu::format(printf, 2, 3)]] void error(const char* format, ...) const noexcept;

private:
    void emit(LogLevel level, const char* message) const noexcept;

    std::string subsystem;
    std::string category;
    void* systemLog;  // what the system knows the handle by; null where it needs none
};

// Never null: when memory is short, the handle of a nameless subsystem takes its place.
[[nodiscard]] std::shared_ptr<const LogHandle> logCreate(const char* subsystem,
                                                         const char* category) noexcept;

// Receives each enabled line instead of the system's log. Called on the thread that logs,
// possibly with locks of the event loop held, so it must neither block nor call the loop.
using LogSink = std::function<void(LogLevel level, const std::string& subsystem,
                                   const std::string& category, const char* message)>;

// An empty sink gives the lines back to the system's log.
void logSetSink(LogSink sink);

// The least level that a sink is handed, and that Linux's syslog is. Error at start.
void logSetLevel(LogLevel least) noexcept;
