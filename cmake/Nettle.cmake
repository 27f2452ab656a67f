# The library that computes digests. A foreign processor has its own in the package of that architecture, which
# script/foreign-package fetches and unpacks once, without installing it.
find_path(NETTLE_INCLUDE_DIR nettle/sha2.h REQUIRED)
if(CMAKE_CROSSCOMPILING)
  set(nettle_root ${PROJECT_SOURCE_DIR}/build/foreign/${debian_architecture})
  set(NETTLE_LIBRARY ${nettle_root}/usr/lib/${triplet}/libnettle.a)
  if(NOT EXISTS ${NETTLE_LIBRARY})
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/script/foreign-package ${debian_architecture} nettle-dev ${nettle_root}
      COMMAND_ERROR_IS_FATAL ANY)
  endif()
else()
  find_library(NETTLE_LIBRARY nettle REQUIRED)
endif()
add_library(nettle::nettle UNKNOWN IMPORTED)
set_target_properties(nettle::nettle PROPERTIES IMPORTED_LOCATION ${NETTLE_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${NETTLE_INCLUDE_DIR})
