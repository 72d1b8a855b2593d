# Configures the user's project and builds TARGET of it, and runs the program RUN if there is one.

file(REMOVE_RECURSE ${WORK})
execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/user -B ${WORK} -G ${GENERATOR}
            -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${COMPILER}
            -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER} -DCMAKE_CXX_FLAGS=${FLAGS}
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK} --target ${TARGET}
    COMMAND_ERROR_IS_FATAL ANY)
if(RUN)
    execute_process(COMMAND ${WORK}/${RUN} COMMAND_ERROR_IS_FATAL ANY)
endif()
