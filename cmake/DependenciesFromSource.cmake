# Where the packages of the target system are not installed, what we need of them is had from this
# one's: Boost's headers, which are the same everywhere, and the sources of GoogleTest.
#
# Included as soon as the project is known, through CMAKE_PROJECT_hxusbvctl_INCLUDE.

# A folder with nothing in it but Boost: what lies beside it in /usr/include is for this machine.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost)
file(CREATE_LINK /usr/include/boost ${PROJECT_BINARY_DIR}/boost/boost SYMBOLIC)
set(Boost_INCLUDE_DIR ${PROJECT_BINARY_DIR}/boost)

# Nothing is fetched: find_package(GTest) builds what lies there.
include(FetchContent)
set(FETCHCONTENT_SOURCE_DIR_GTEST /usr/src/googletest)
FetchContent_Declare(GTest SOURCE_DIR ${FETCHCONTENT_SOURCE_DIR_GTEST} OVERRIDE_FIND_PACKAGE)
set(BUILD_GMOCK OFF)
set(INSTALL_GTEST OFF)
