# Installs the programs alone, with their manual pages and completions.

file(REMOVE_RECURSE ${WORK})
unset(ENV{DESTDIR})
execute_process(
    COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --component utility --prefix ${WORK}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(expected
    ${SBINDIR}/hxusbvctl
    ${SBINDIR}/hxusbvd-sim
    ${MANDIR}/man8/hxusbvctl.8
    ${MANDIR}/man8/hxusbvd-sim.8
    ${DATADIR}/bash-completion/completions/hxusbvctl
    ${DATADIR}/fish/vendor_completions.d/hxusbvctl.fish
    ${DATADIR}/zsh/site-functions/_hxusbvctl)
file(GLOB_RECURSE installed RELATIVE ${WORK} ${WORK}/*)
list(SORT expected)
list(SORT installed)
if(NOT installed STREQUAL expected)
    message(FATAL_ERROR "installed: ${installed}")
endif()
