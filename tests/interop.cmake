# The engine on a real port against XMODEM programs that others have written.
add_library(interop_support STATIC
  interop/PeerLine.cpp
  interop/Transfer.cpp
  support/Process.cpp)
target_include_directories(interop_support PUBLIC interop support ${PROJECT_SOURCE_DIR}/platform/posix)
target_link_libraries(interop_support PUBLIC feature platform GTest::gtest)

peripheral_test(interop_tests LABEL integration
  LONG "*Mebibyte*"
  SOURCES
    interop/LrzszTest.cpp
    interop/PythonXmodemTest.cpp
  LIBRARIES interop_support feature swlinfra platform leak_suppressions)
target_compile_definitions(interop_tests PRIVATE XMODEM_PEER="${CMAKE_CURRENT_SOURCE_DIR}/interop/xmodem_peer.py")

if(NOT measured_build)
  # An emulated machine that does not get its turn loses what arrives meanwhile.
  peripheral_test(bootloader_tests LABEL long ALONE
    SOURCES interop/BootloaderTest.cpp
    LIBRARIES interop_support feature swlinfra platform leak_suppressions)
endif()
