# Installs the programs alone.

file(REMOVE_RECURSE ${WORK})
unset(ENV{DESTDIR})
execute_process(
    COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --component utility --prefix ${WORK}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(GLOB_RECURSE programs RELATIVE ${WORK}/${SBINDIR} ${WORK}/*)
list(SORT programs)
if(NOT programs STREQUAL "hxusbvctl;hxusbvd-sim")
    message(FATAL_ERROR "installed: ${programs}")
endif()
