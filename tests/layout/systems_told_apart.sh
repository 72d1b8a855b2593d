#!/bin/sh
# Fails, and prints the lines, when a source outside platform/ or what builds it finds out which
# system it is for.
cd "$(dirname "$0")/../.." || exit 1

macros='(^|[^[:alnum:]])_*(linux|gnu_linux|GLIBC|ANDROID|APPLE|MACH|TARGET_OS|FreeBSD|NetBSD|OpenBSD|WIN32)_*($|[^[:alnum:]/])'
asked="^[^/]*($macros|TARGET_OS_|__has_include)"
headers='^[[:space:]]*#[[:space:]]*include[[:space:]]*<((linux|mach|os|libkern|CoreFoundation)/|TargetConditionals|Availability|sys/(epoll|eventfd|inotify|prctl|signalfd|syscall|timerfd)\.h)'
build='CMAKE_SYSTEM_NAME|CMAKE_HOST_SYSTEM_NAME|(^|[^[:alnum:]_])(APPLE|UNIX|LINUX|WIN32)($|[^[:alnum:]_])'

status=0

# It would be no proof if what it looks for were not found.
expect() {
    pattern=$1
    while IFS= read -r line; do
        printf '%s\n' "$line" | grep -qE "$pattern" && continue
        echo "not found: $line" >&2
        status=1
    done
}
expect "$asked|$headers" <<'END'
#ifdef __APPLE__
# if defined(__linux__) && 1
    defined(__APPLE__) && defined(__MACH__)
#elif TARGET_OS_OSX
#ifndef linux
#if __has_include(<sys/epoll.h>)
#include <TargetConditionals.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <os/log.h>
END
expect "$build" <<'END'
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
if(APPLE)
END

# The pattern, then what grep is to look through.
look() {
    pattern=$1
    shift
    grep -rnE "$pattern" "$@"
    [ $? -eq 1 ] || status=1
}
look "$asked" --include='*.h' --include='*.cpp' cli examples ipc kqueue sim tests
look "$headers" --include='*.h' --include='*.cpp' cli examples ipc kqueue sim
look "$build" cli/CMakeLists.txt ipc/CMakeLists.txt kqueue/CMakeLists.txt sim/CMakeLists.txt
exit $status
