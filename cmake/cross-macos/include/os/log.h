// Unified logging for a cross compiler whose macOS headers lack <os/log.h>. Declares what
// platform/darwin uses of it, as the C library of macOS exports it; os_log(3) describes it. A build
// on a Mac has the system's header and never sees this one.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;

#define OS_LOG_TYPE_DEBUG ((os_log_type_t)0x02)
#define OS_LOG_TYPE_ERROR ((os_log_type_t)0x10)

os_log_t os_log_create(const char* subsystem, const char* category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);

// The compiler lays out the arguments; the log finds the format by the image it lies in.
extern struct mach_header __dso_handle;
void _os_log_impl(void* image, os_log_t log, os_log_type_t type, const char* format,
                  uint8_t* layout, uint32_t size);

#define os_log_with_type(log, type, format, ...)                                         \
    do {                                                                                 \
        static const char os_log_format[]                                                \
            __attribute__((section("__TEXT,__oslogstring,cstring_literals"))) = format;  \
        uint8_t os_log_layout[__builtin_os_log_format_buffer_size(format, __VA_ARGS__)]; \
        __builtin_os_log_format(os_log_layout, format, __VA_ARGS__);                     \
        _os_log_impl((void*)&__dso_handle, log, type, os_log_format, os_log_layout,      \
                     sizeof os_log_layout);                                              \
    } while (0)

#ifdef __cplusplus
}
#endif
