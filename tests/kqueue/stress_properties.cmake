# Read by ctest after the list of tests. Each stress test keeps two processors busy, so ctest counts
# it as four of its jobs.
if(kqueue_stress_tests_TESTS)
    set_tests_properties(${kqueue_stress_tests_TESTS} PROPERTIES PROCESSORS 4)
endif()
