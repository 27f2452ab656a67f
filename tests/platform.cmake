# QEMU's emulation of single programs (7.2) does not know the call by which a line's settings are read, TCGETS2.
peripheral_test(platform_tests LABEL unit
  NATIVE "SerialPort.*:Gathering.*:Waiting.*:LineObserver.*"
  SOURCES
    support/IoctlDouble.cpp
    unit/platform/ClockTest.cpp
    unit/platform/FileExistsCacheTest.cpp
    unit/platform/FileSystemUtilsTest.cpp
    unit/platform/GatheringTest.cpp
    unit/platform/LineObserverTest.cpp
    unit/platform/LoggingTest.cpp
    unit/platform/SerialPortTest.cpp
    unit/platform/Support.cpp
    unit/platform/TextTest.cpp
  LIBRARIES platform platform_observation)
# The owner of a descriptor is what tests of descriptors want too.
target_include_directories(platform_tests PRIVATE support ${PROJECT_SOURCE_DIR}/platform/posix)
