# Makes the Debian packages below WORK, under a umask that lets nobody else read, and unpacks that of
# the library.

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/unpacked)
unset(ENV{DESTDIR})
execute_process(
    COMMAND sh -c "umask 077; exec \"$@\"" sh
            ${CPACK} --config ${BINARY_DIR}/CPackConfig.cmake -G DEB -B ${WORK}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(GLOB library ${WORK}/libhxkqueue-dev_*.deb)
execute_process(COMMAND dpkg-deb --extract ${library} ${WORK}/unpacked COMMAND_ERROR_IS_FATAL ANY)
