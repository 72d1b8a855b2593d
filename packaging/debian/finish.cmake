# Read by cpack when it has staged the files of each Debian package: adds what Debian wants besides
# them, and moves and compresses what it wants elsewhere or otherwise than cmake --install puts it.
# Programs have been stripped already.

cmake_policy(VERSION 3.25)

function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(add_documents package root)
    set(folder ${root}/share/doc/${package})
    configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/copyright ${folder}/copyright COPYONLY)
    configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../../CHANGELOG.md ${folder}/changelog COPYONLY)
    set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/changelog.in ${folder}/changelog.Debian @ONLY)
    run(gzip --best --no-name ${folder}/changelog ${folder}/changelog.Debian)
endfunction()

function(compress_pages root)
    file(GLOB pages ${root}/share/man/man[1-9]/*.[1-9])
    run(gzip --best --no-name ${pages})
endfunction()

set(utility ${CPACK_TEMPORARY_DIRECTORY}/utility${CPACK_PACKAGING_INSTALL_PREFIX})
set(development ${CPACK_TEMPORARY_DIRECTORY}/development${CPACK_PACKAGING_INSTALL_PREFIX})

add_documents(${CPACK_DEBIAN_UTILITY_PACKAGE_NAME} ${utility})
add_documents(${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME} ${development})
compress_pages(${utility})
compress_pages(${development})

# Debian's zsh looks for the completions of packages here.
file(RENAME ${utility}/share/zsh/site-functions ${utility}/share/zsh/vendor-completions)

file(GLOB_RECURSE archives ${development}/lib/*.a)
run(strip --strip-debug --remove-section=.comment --enable-deterministic-archives ${archives})
