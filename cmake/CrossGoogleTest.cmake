# GoogleTest for a foreign processor, built from the source that Debian's package googletest brings.
set(GOOGLETEST_SOURCE /usr/src/googletest)
if(NOT EXISTS ${GOOGLETEST_SOURCE}/CMakeLists.txt)
  message(FATAL_ERROR "There is no GoogleTest in ${GOOGLETEST_SOURCE}; run script/bootstrap --full")
endif()
set(INSTALL_GTEST OFF)
add_subdirectory(${GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(library gtest gtest_main gmock gmock_main)
  # Its warnings are not ours to mend.
  target_compile_options(${library} PRIVATE -w)
endforeach()
