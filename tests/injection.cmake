# Real updates in which calls of the system and of the C library fail, each at each of its moments.
add_library(failing_calls STATIC injection/FailingCalls.cpp)
target_include_directories(failing_calls PUBLIC injection)
set(failing_calls malloc fopen fread fwrite fseek ftell fclose pthread_create stat fstat open close flock ioctl read
  write poll)
list(TRANSFORM failing_calls PREPEND -Wl,--wrap=)
target_link_options(failing_calls INTERFACE ${failing_calls})

add_library(line_time STATIC injection/LineTime.cpp)
target_include_directories(line_time PUBLIC injection)
target_link_options(line_time INTERFACE -Wl,--wrap=clock_gettime)

peripheral_test(injection_tests LABEL integration
  LONG "*KeepsItsPromisesWhicheverCallFails*"
  SOURCES
    injection/NthFailureTest.cpp
    injection/PluggedDevice.cpp
    injection/UpdatingHost.cpp
  LIBRARIES
    feature swlinfra platform_common platform_system test_support simulator failing_calls line_time leak_suppressions)
# Each of them, but where that takes several times as long.
set(stride 1)
if(measured_build)
  set(stride 23)
endif()
target_compile_definitions(injection_tests PRIVATE FAILING_CALLS_STRIDE=${stride})

# The program with a library preloaded. A sanitizer's runtime would have to come before it.
if(NOT PERIPHERAL_SANITIZE)
  add_library(preloaded_failure MODULE injection/PreloadedFailure.cpp)
  target_link_libraries(preloaded_failure PRIVATE ${CMAKE_DL_LIBS})
  peripheral_test(failing_program_tests LABEL long ALONE
    SOURCES
      injection/KillTest.cpp
      injection/ProgramTest.cpp
      support/Process.cpp
    LIBRARIES host)
  target_include_directories(failing_program_tests PRIVATE support)
  target_compile_definitions(failing_program_tests PRIVATE
    PRELOADED_FAILURE="$<TARGET_FILE:preloaded_failure>"
    PERIPHERALCTL="$<TARGET_FILE:peripheralctl>"
    BOOTLOADER_SIMULATOR="$<TARGET_FILE:bootloader-simulator>")
  add_dependencies(failing_program_tests preloaded_failure peripheralctl bootloader-simulator PeripheralLoader)
endif()
