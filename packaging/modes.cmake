# Read by cpack when it has staged the files of each package: everybody may read them, whatever the umask
# of the one who packages.

cmake_policy(VERSION 3.25)
execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
