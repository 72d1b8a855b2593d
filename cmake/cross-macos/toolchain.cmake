# One processor's half of the macOS build, from Linux. scripts/cross-macos says which, and where the
# compiler is: HXUSBVCTL_CROSS_PROCESSOR, HXUSBVCTL_CROSS_COMPILER.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 23)  # macOS 14's kernel
set(CMAKE_SYSTEM_PROCESSOR ${HXUSBVCTL_CROSS_PROCESSOR})
set(CMAKE_CXX_COMPILER ${HXUSBVCTL_CROSS_COMPILER})
set(CMAKE_AR llvm-ar-14)
set(CMAKE_RANLIB llvm-ranlib-14)
