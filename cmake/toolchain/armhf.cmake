set(CMAKE_SYSTEM_PROCESSOR arm)
set(triplet arm-linux-gnueabihf)
set(debian_architecture armhf)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
