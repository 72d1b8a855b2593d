# Read by ctest after the tests of each suite, where an emulator runs them.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/left_out_when_emulated.txt lines REGEX "^[^#]")
foreach(line IN LISTS lines)
    string(REGEX MATCH "^[^ ]+" test ${line})
    set_tests_properties(${test} PROPERTIES DISABLED TRUE)
endforeach()
