# Installs the library for a prefix, below DESTDIR, and checks that nothing went elsewhere.

file(REMOVE_RECURSE ${STAGE})
file(REMOVE ${BINARY_DIR}/install_manifest_development.txt)  # which may be root's
set(ENV{DESTDIR} ${STAGE})
string(REPLACE "${STAGE}" "" prefix_of_user ${PREFIX})
execute_process(
    COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --component development
            --prefix ${prefix_of_user}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

foreach(file include/hxkqueue/kqueue/HXKQueue.h include/hxkqueue/platform/log.h
             ${LIBDIR}/libhxkqueue.a ${LIBDIR}/pkgconfig/hxkqueue.pc
             ${LIBDIR}/cmake/hxkqueue/hxkqueueConfig.cmake ${MANDIR}/man3/hxkqueue.3)
    if(NOT EXISTS ${PREFIX}/${file})
        message(FATAL_ERROR "${file} is missing")
    endif()
endforeach()

file(GLOB_RECURSE everything LIST_DIRECTORIES false ${STAGE}/*)
foreach(file IN LISTS everything)
    string(FIND ${file} ${PREFIX}/include/hxkqueue/ among_headers)
    string(FIND ${file} ${PREFIX}/${LIBDIR}/ among_libraries)
    string(FIND ${file} ${PREFIX}/${MANDIR}/man3/ among_pages)
    if(NOT (among_headers EQUAL 0 OR among_libraries EQUAL 0 OR among_pages EQUAL 0))
        message(FATAL_ERROR "${file} does not belong to the library")
    endif()
endforeach()
