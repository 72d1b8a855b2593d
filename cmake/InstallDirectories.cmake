# Where things are installed below a prefix: where GNUInstallDirs says. It knows Debian's folder for
# libraries only below /usr; below /usr/local the same is looked in there, too, and what has been
# built for one prefix can be packaged for the other.

if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
