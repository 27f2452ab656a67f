# The module's objects on the virtual platform: its own clock and serial ports, the real rest.
add_library(test_support STATIC
  support/LogCapture.cpp
  support/RecordingBroker.cpp
  support/SerialPorts.cpp
  support/VirtualClock.cpp)
target_include_directories(test_support PUBLIC support)
target_link_libraries(test_support PUBLIC platform_headers PRIVATE GTest::gtest)

add_library(module_on_virtual_platform INTERFACE)
target_link_libraries(module_on_virtual_platform INTERFACE
  feature swlinfra platform_common test_support
  $<TARGET_OBJECTS:feature> $<TARGET_OBJECTS:swlinfra> $<TARGET_OBJECTS:platform_common>)

# For executables in which a file's transfer may find no receiver.
add_library(leak_suppressions OBJECT support/LeakSuppressions.cpp)
