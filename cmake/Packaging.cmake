# What cpack makes of what was built: a package of each component, of the kind that the system has;
# archives where it has none, or what was built is for another. The files in packaging/ finish it when
# cpack runs.

set(HXUSBVCTL_MAINTAINER "hxusbvctl maintainers <maintainers@hxusbvctl.invalid>" CACHE STRING
    "Who answers for the packages: a name and an address that mail reaches")

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(RPMBUILD rpmbuild)
if(DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
    set(CPACK_GENERATOR DEB)
elseif(RPMBUILD AND NOT CMAKE_CROSSCOMPILING)
    set(CPACK_GENERATOR RPM)
else()
    set(CPACK_GENERATOR TGZ)
endif()

set(utility_summary "control utility for a daemon that shares USB devices across a network")
set(utility_description
"hxusbvctl lists the servers that a local daemon knows with their USB devices,
adds, removes, disconnects and reconnects servers, and plugs and unplugs their
devices as virtual devices of this machine. Its exit status tells scripts how
each command went, and bash, zsh and fish complete its command line with what
the daemon lists.

The daemon is not part of this. With hxusbvd-sim, a simulated one, the utility
can be tried, and programs that use it can be tested.")
set(development_summary "event loop over the kernel's event queue, for C++20")
set(development_description
"hxkqueue drives stream and listening sockets, pipes, terminals and timers from
one thread. Its interface is that of the kernel event queue of BSD systems; on
Linux it brings one of its own, over epoll.

This package has the static library, its headers, what CMake and pkg-config ask
for, and the manual page hxkqueue(3).")

set(CPACK_PACKAGE_VENDOR "${HXUSBVCTL_MAINTAINER}")
set(CPACK_PACKAGE_CONTACT "${HXUSBVCTL_MAINTAINER}")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/packaging.cmake)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL utility development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE ${PROJECT_NAME})
# Sorts before the first that a distribution makes itself.
set(CPACK_DEBIAN_PACKAGE_RELEASE 0upstream1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_UTILITY_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_DEBIAN_UTILITY_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_UTILITY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_UTILITY_DESCRIPTION "${utility_summary}\n${utility_description}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhxkqueue-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS libc6-dev)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${development_summary}\n${development_description}")

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "none stated")
set(CPACK_RPM_UTILITY_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_RPM_UTILITY_PACKAGE_SUMMARY "${utility_summary}")
set(CPACK_RPM_UTILITY_PACKAGE_DESCRIPTION "${utility_description}")
set(CPACK_RPM_DEVELOPMENT_PACKAGE_NAME hxkqueue-devel)
set(CPACK_RPM_DEVELOPMENT_PACKAGE_SUMMARY "${development_summary}")
set(CPACK_RPM_DEVELOPMENT_PACKAGE_DESCRIPTION "${development_description}")
# Nothing of the time and the machine that it is made at.
set(CPACK_RPM_SPEC_MORE_DEFINE
"%define use_source_date_epoch_as_buildtime 1
%define _buildhost localhost
%define _build_id_links none")
# Folders that are other packages'.
foreach(folder IN ITEMS sbin ${CMAKE_INSTALL_LIBDIR} ${CMAKE_INSTALL_LIBDIR}/cmake
        ${CMAKE_INSTALL_LIBDIR}/pkgconfig share/man share/man/man3 share/man/man8
        share/bash-completion share/bash-completion/completions share/fish
        share/fish/vendor_completions.d share/zsh share/zsh/site-functions)
    list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/${folder})
endforeach()

configure_file(packaging/packaging.cmake.in packaging.cmake @ONLY)
include(CPack)
