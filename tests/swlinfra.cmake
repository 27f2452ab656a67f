# Stands between an executable and the C library's system(), to watch commands and to answer in its place.
add_library(system_calls STATIC support/SystemCalls.cpp)
target_include_directories(system_calls PUBLIC support)
target_link_options(system_calls INTERFACE -Wl,--wrap=system)

add_library(recording_tools STATIC support/RecordingTools.cpp)
target_include_directories(recording_tools PUBLIC support)

# The file helpers on the real file system.
peripheral_test(file_handler_test LABEL unit
  SOURCES unit/swlinfra/FileHandlerTest.cpp
  LIBRARIES swlinfra platform_common test_support)

# The file helpers on a file system that writes down what it is asked. Of the real platform only the log.
peripheral_test(file_handler_on_fakes_test LABEL unit
  SOURCES
    unit/swlinfra/FileHandlerOnFakesTest.cpp
    ${PROJECT_SOURCE_DIR}/platform/posix/Logging.cpp
  LIBRARIES swlinfra test_support system_calls)

# Shell commands, the maintenance of file systems and the question for free space, with tools that only
# write down how they are called.
peripheral_test(swlinfra_tests LABEL unit
  SOURCES
    unit/swlinfra/AvailableSpaceTest.cpp
    unit/swlinfra/CmdHandlerTest.cpp
    unit/swlinfra/MaintenanceTest.cpp
  LIBRARIES swlinfra platform_common test_support recording_tools system_calls)
target_include_directories(swlinfra_tests PRIVATE unit/module)

# The same with the tools of e2fsprogs and dosfstools on image files.
peripheral_test(real_tools_tests LABEL integration
  SOURCES integration/RealToolsTest.cpp
  LIBRARIES swlinfra platform_common test_support recording_tools system_calls)
target_include_directories(real_tools_tests PRIVATE unit/module unit/swlinfra)
