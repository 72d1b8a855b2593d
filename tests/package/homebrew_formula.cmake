# Writes the formula, and has Ruby read it.

file(REMOVE_RECURSE ${WORK})
execute_process(
    COMMAND ${SOURCE_DIR}/scripts/homebrew-formula https://project.example https://archives.example/
            ${WORK}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND ${RUBY} -w ${CMAKE_CURRENT_LIST_DIR}/formula.rb ${WORK} ${UTILITY} ${DAEMON}
    COMMAND_ERROR_IS_FATAL ANY)
