set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triplet s390x-linux-gnu)
set(debian_architecture s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
