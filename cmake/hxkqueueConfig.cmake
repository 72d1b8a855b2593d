# find_package(hxkqueue) gives the target hxkqueue::hxkqueue.

include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/hxkqueueTargets.cmake)
