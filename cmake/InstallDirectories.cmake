# Where things are installed below a prefix: where GNUInstallDirs says. It knows Debian's folder for
# libraries only below /usr. Debian looks in the same one below /usr/local, so it is taken below every
# prefix, and what has been built for one can be packaged for another.

if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
