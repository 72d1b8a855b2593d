# Where the library, its headers, its CMake package and its pkg-config file go. All of it may be
# moved together afterwards: what is installed names nothing by an absolute path, unless a
# destination was given as one.

include(CMakePackageConfigHelpers)

set(include_destination ${CMAKE_INSTALL_INCLUDEDIR}/hxkqueue)
set(package_destination ${CMAKE_INSTALL_LIBDIR}/cmake/hxkqueue)
set(pkg_config_destination ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

get_target_property(header_sets hxkqueue INTERFACE_HEADER_SETS)
foreach(header_set IN LISTS header_sets)
    list(APPEND install_header_sets
        FILE_SET ${header_set} DESTINATION ${include_destination} COMPONENT development)
endforeach()
install(TARGETS hxkqueue EXPORT hxkqueue
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${include_destination}
    ${install_header_sets})
install(EXPORT hxkqueue NAMESPACE hxkqueue:: FILE hxkqueueTargets.cmake
    DESTINATION ${package_destination} COMPONENT development)

# Before 1.0 a new minor version may break its users.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/hxkqueueConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/hxkqueueConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/hxkqueueConfigVersion.cmake
    DESTINATION ${package_destination} COMPONENT development)

# What ${variable} of the pkg-config file says: directory, below the file's own prefix.
function(set_pkg_config_directory variable directory)
    if(IS_ABSOLUTE ${directory})
        set(${variable} ${directory} PARENT_SCOPE)
    else()
        set(${variable} "\${prefix}/${directory}" PARENT_SCOPE)
    endif()
endfunction()

set_pkg_config_directory(pkg_config_libdir ${CMAKE_INSTALL_LIBDIR})
set_pkg_config_directory(pkg_config_includedir ${include_destination})
if(IS_ABSOLUTE ${pkg_config_destination})
    set(pkg_config_prefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH up /${pkg_config_destination} /)
    string(REGEX REPLACE "/$" "" up ${up})
    set(pkg_config_prefix "\${pcfiledir}/${up}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/hxkqueue.pc.in hxkqueue.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hxkqueue.pc
    DESTINATION ${pkg_config_destination} COMPONENT development)
