# Makes the Debian packages once more, elsewhere and later, and compares them with the EARLIER ones.

include(${CMAKE_CURRENT_LIST_DIR}/debian_packages.cmake)
file(GLOB packages RELATIVE ${EARLIER} ${EARLIER}/*.deb)
list(LENGTH packages count)
if(NOT count EQUAL 2)
    message(FATAL_ERROR "there are ${count} packages to compare")
endif()
foreach(package IN LISTS packages)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E compare_files ${EARLIER}/${package} ${WORK}/${package}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()
