# The shipped programs and libraries as processes.
peripheral_test(integration_tests LABEL integration TIMEOUT 300
  LONG "Update.OfASilentDeviceEndsWithTheStall"
  SOURCES
    integration/UpdateTest.cpp
    support/Process.cpp
  LIBRARIES platform_headers)
target_include_directories(integration_tests PRIVATE support)
target_compile_definitions(integration_tests PRIVATE
  PERIPHERALCTL="$<TARGET_FILE:peripheralctl>"
  BOOTLOADER_SIMULATOR="$<TARGET_FILE:bootloader-simulator>")
add_dependencies(integration_tests peripheralctl bootloader-simulator PeripheralLoader)
