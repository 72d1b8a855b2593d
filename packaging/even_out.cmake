# Read by cpack when it has staged the files of each package: everybody may read them, whatever the
# umask of the one who packages, and each has the time that the package has.

cmake_policy(VERSION 3.25)
string(TIMESTAMP time "%Y%m%d%H%M.%S" UTC)
execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND env TZ=UTC find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -t ${time} {} +
    COMMAND_ERROR_IS_FATAL ANY)
