# Installs the programs alone, with their manual pages and completions: below a prefix, and for
# another prefix below DESTDIR.

set(expected
    ${SBINDIR}/hxusbvctl
    ${SBINDIR}/hxusbvd-sim
    ${MANDIR}/man8/hxusbvctl.8
    ${MANDIR}/man8/hxusbvd-sim.8
    ${DATADIR}/bash-completion/completions/hxusbvctl
    ${DATADIR}/fish/vendor_completions.d/hxusbvctl.fish
    ${DATADIR}/zsh/site-functions/_hxusbvctl)
list(SORT expected)

function(expect_installed destdir prefix)
    file(REMOVE_RECURSE ${WORK})
    file(REMOVE ${BINARY_DIR}/install_manifest_utility.txt)  # which may be root's
    set(ENV{DESTDIR} ${destdir})
    execute_process(
        COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --component utility --prefix ${prefix}
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(GLOB_RECURSE installed RELATIVE ${destdir}${prefix} ${WORK}/*)
    list(SORT installed)
    if(NOT installed STREQUAL expected)
        message(FATAL_ERROR "installed below ${destdir}${prefix}: ${installed}")
    endif()
endfunction()

expect_installed("" ${WORK})
expect_installed(${WORK} /opt/hxusbvctl)
