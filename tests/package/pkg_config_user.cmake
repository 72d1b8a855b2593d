# Compiles and runs the user's program with what pkg-config says, and nothing else.

set(ENV{PKG_CONFIG_LIBDIR} ${PREFIX}/${LIBDIR}/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --modversion hxkqueue
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
if(NOT version STREQUAL VERSION)
    message(FATAL_ERROR "pkg-config knows version ${version}")
endif()
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs hxkqueue
    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(answer UNIX_COMMAND "${answer}")
separate_arguments(FLAGS UNIX_COMMAND "${FLAGS}")

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(
    COMMAND ${COMPILER} -std=c++20 ${FLAGS} -o ${WORK}/echo_once
            ${CMAKE_CURRENT_LIST_DIR}/user/echo_once.cpp ${answer}
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${WORK}/echo_once COMMAND_ERROR_IS_FATAL ANY)
