# How every target of this project is compiled. The targets link `project_settings` privately,
# so nothing of this reaches a program that uses the installed library.

include(CheckCXXCompilerFlag)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(HXUSBVCTL_WERROR "Treat compiler warnings as errors" OFF)
set(HXUSBVCTL_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=")

add_library(project_settings INTERFACE)
target_include_directories(project_settings INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(project_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-align -Wformat=2 -Wundef
    $<$<BOOL:${HXUSBVCTL_WERROR}>:-Werror>)

# g++ 12 sees an overlap in every "literal" + std::string() that it inlines (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(project_settings INTERFACE -Wno-restrict)
endif()

# What is released is the same bytes wherever it was built; scripts/check-reproducible looks at that.
# Debuggers want to know where the sources are, so the other builds name their folder.
target_compile_options(project_settings INTERFACE
    "$<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>")
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
    set(CMAKE_CXX_ARCHIVE_APPEND "<CMAKE_AR> qD <TARGET> <LINK_FLAGS> <OBJECTS>")
    set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")
endif()

# The check of an object's type, vptr, asks by way of a pipe whether memory can be read: for a moment
# the process has two descriptors more, which tests take for ones that were not closed.
if(HXUSBVCTL_SANITIZE)
    add_compile_options(-fsanitize=${HXUSBVCTL_SANITIZE} -fno-sanitize=vptr
                        -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${HXUSBVCTL_SANITIZE})
endif()

# What distributions build their packages with; scripts/check-hardening looks at what came of it. A
# sanitizer has its own ways, and _FORTIFY_SOURCE needs an optimiser; its level 3 has the reports'
# short copies checked one by one, for a fifth more instructions. On macOS the compiler's defaults do.
# Who asks for position-independent code gets that, which goes into a program or a library.
option(HXUSBVCTL_HARDEN "Build with the protections that distributions build with" ON)
if(HXUSBVCTL_HARDEN AND NOT HXUSBVCTL_SANITIZE AND CMAKE_SYSTEM_NAME STREQUAL "Linux")
    set(is_part_of_a_program
        "$<IN_LIST:$<TARGET_PROPERTY:TYPE>,EXECUTABLE;STATIC_LIBRARY;OBJECT_LIBRARY>")
    set(is_left_to_us "$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>")
    set(is_optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
    target_compile_definitions(project_settings INTERFACE _GLIBCXX_ASSERTIONS)
    target_compile_options(project_settings INTERFACE
        "$<$<AND:${is_part_of_a_program},${is_left_to_us}>:-fPIE>" -fstack-protector-strong
        "$<${is_optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
    target_link_options(project_settings INTERFACE
        "$<${is_part_of_a_program}:-pie>" -Wl,-z,relro,-z,now,-z,noexecstack)
    # Unknown to clang for some processors, 64-bit Arm among them.
    set(CMAKE_REQUIRED_FLAGS -Werror)
    check_cxx_compiler_flag(-fstack-clash-protection HXUSBVCTL_KNOWS_STACK_CLASH)
    unset(CMAKE_REQUIRED_FLAGS)
    if(HXUSBVCTL_KNOWS_STACK_CLASH)
        target_compile_options(project_settings INTERFACE -fstack-clash-protection)
    endif()
endif()

# For a program that is one file to carry to another machine. macOS has the C++ library everywhere,
# and a sanitizer's runtime needs the shared libraries.
add_library(self_contained INTERFACE)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang"
   AND NOT HXUSBVCTL_SANITIZE)
    target_link_options(self_contained INTERFACE
        "$<$<CONFIG:Release>:-static-libstdc++;-static-libgcc>")
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
