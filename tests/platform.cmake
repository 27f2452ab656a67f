peripheral_test(platform_tests LABEL unit
  SOURCES
    unit/platform/ClockTest.cpp
    unit/platform/FileExistsCacheTest.cpp
    unit/platform/FileSystemUtilsTest.cpp
    unit/platform/LoggingTest.cpp
    unit/platform/SerialPortTest.cpp
    unit/platform/Support.cpp
    unit/platform/TextTest.cpp
  LIBRARIES platform)
# The owner of a descriptor is what tests of descriptors want too.
target_include_directories(platform_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/posix)
