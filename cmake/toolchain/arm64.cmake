set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triplet aarch64-linux-gnu)
set(debian_architecture arm64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
