# Builds the first program of the guide in each way that the documents tell, against the installed library:
# with the guide's CMakeLists.txt, with the lines of README.md in one, and with the commands of both.

set(guide docs/event-loop.md)
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND awk -v name=first_lines -f tests/docs/extract.awk ${guide}
    WORKING_DIRECTORY ${SOURCE_DIR}
    OUTPUT_VARIABLE program COMMAND_ERROR_IS_FATAL ANY)

# All that stands between two texts in a document, which is there once.
function(text_between begin end document result)
    file(READ ${SOURCE_DIR}/${document} text)
    string(FIND "${text}" "${begin}" first)
    string(FIND "${text}" "${begin}" last REVERSE)
    if(first EQUAL -1 OR NOT first EQUAL last)
        message(FATAL_ERROR "${document} does not have '${begin}' once")
    endif()
    string(LENGTH "${begin}" length)
    math(EXPR first "${first} + ${length}")
    string(SUBSTRING "${text}" ${first} -1 text)
    string(FIND "${text}" "${end}" length)
    string(SUBSTRING "${text}" 0 ${length} text)
    set(${result} "${text}" PARENT_SCOPE)
endfunction()

function(build_project name lists)
    file(WRITE ${WORK}/${name}/CMakeLists.txt "${lists}")
    file(WRITE ${WORK}/${name}/ticks.cpp "${program}")
    execute_process(
        COMMAND ${CMAKE_COMMAND} -S ${WORK}/${name} -B ${WORK}/${name}/build -G ${GENERATOR}
                -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${COMPILER}
                -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER} -DCMAKE_CXX_FLAGS=${FLAGS}
        COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/${name}/build
        COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The command is a person's, who has one compiler.
function(build_by_hand name source document)
    text_between("`c++ " "`" ${document} arguments)
    file(WRITE ${WORK}/${name}/${source} "${program}")
    file(WRITE ${WORK}/bin/c++ "#!/bin/sh\nexec ${LAUNCHER} ${COMPILER} ${FLAGS} \"$@\"\n")
    file(CHMOD ${WORK}/bin/c++ PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    set(ENV{PKG_CONFIG_PATH} ${PREFIX}/${LIBDIR}/pkgconfig)
    set(ENV{PATH} "${WORK}/bin:$ENV{PATH}")
    execute_process(COMMAND sh -c "c++ ${arguments}" WORKING_DIRECTORY ${WORK}/${name}
        COMMAND_ERROR_IS_FATAL ANY)
    if(NOT EXISTS ${WORK}/${name}/a.out)
        message(FATAL_ERROR "'c++ ${arguments}' has built nothing")
    endif()
endfunction()

text_between("```cmake\n" "```" ${guide} lists)
build_project(guide "${lists}")
execute_process(COMMAND ${WORK}/guide/build/ticks OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
if(NOT output MATCHES "^(tick\n)+$")
    message(FATAL_ERROR "the guide's program prints '${output}'")
endif()
text_between("```cmake\n" "```" README.md lines)
build_project(readme "cmake_minimum_required(VERSION 3.25)
project(readme LANGUAGES CXX)
add_executable(program ticks.cpp)
${lines}")
build_by_hand(guide_by_hand ticks.cpp ${guide})
build_by_hand(readme_by_hand program.cpp README.md)
