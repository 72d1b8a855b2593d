#!/bin/sh
# Fails, and prints the lines, when a source outside platform/ finds out which system it is compiled
# for. Run from the top of the tree.

macros='(_|[^[:alnum:]_])(linux|gnu_linux|GLIBC|APPLE|MACH|TARGET_OS|FreeBSD|NetBSD|OpenBSD|BSD|unix|WIN32)'
asked="^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif).*($macros|[[:space:](]__has_include)"
headers='^[[:space:]]*#[[:space:]]*include[[:space:]]*<(linux|mach|os|sys/(epoll|eventfd|signalfd|timerfd)\.h)'

# It would be no proof if what it looks for were not found.
samples='#ifdef __APPLE__
# if defined(__linux__) && 1
#elif TARGET_OS_OSX
#ifndef linux
#if __has_include(<sys/epoll.h>)
#include <sys/epoll.h>
#include <os/log.h>'
found=$(echo "$samples" | grep -cE "$asked|$headers")
wanted=$(echo "$samples" | grep -c '')
if [ "$found" -ne "$wanted" ]; then
    echo "only $found of $wanted samples are found" >&2
    exit 1
fi

status=0
grep -rnE --include='*.h' --include='*.cpp' "$asked" cli examples ipc kqueue sim tests && status=1
grep -rnE --include='*.h' --include='*.cpp' "$headers" cli examples ipc kqueue sim && status=1
exit $status
