# One processor's half of the macOS build, from Linux. scripts/cross-macos says for which, and with
# which compiler: HXUSBVCTL_CROSS_PROCESSOR, HXUSBVCTL_CROSS_COMPILER.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${HXUSBVCTL_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${HXUSBVCTL_CROSS_COMPILER}) # GoogleTest asks for one, and uses none
set(CMAKE_CXX_COMPILER ${HXUSBVCTL_CROSS_COMPILER})
set(CMAKE_AR llvm-ar-14)
set(CMAKE_RANLIB llvm-ranlib-14)
set(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool-14)
# Without -g0 this compiler describes everything to a debugger.
set(CMAKE_CXX_FLAGS_INIT "-g0 -isystem ${CMAKE_CURRENT_LIST_DIR}/include")
