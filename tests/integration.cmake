# The shipped programs and libraries as processes.
peripheral_test(integration_tests LABEL integration
  LONG "Update.OfASilentDeviceSaysAtWhichStepItFellSilent:Report.AsAPageShowsTheRunInABrowser"
  SOURCES
    integration/ReportTest.cpp
    integration/TraceTest.cpp
    integration/UpdateTest.cpp
    support/Process.cpp
  LIBRARIES host platform_headers)
target_include_directories(integration_tests PRIVATE support)
target_compile_definitions(integration_tests PRIVATE
  BROWSER="/usr/bin/chromium"
  KEPT_TRACES="${CMAKE_CURRENT_SOURCE_DIR}/traces/"
  PERIPHERALCTL="$<TARGET_FILE:peripheralctl>"
  BOOTLOADER_SIMULATOR="$<TARGET_FILE:bootloader-simulator>")
add_dependencies(integration_tests peripheralctl bootloader-simulator PeripheralLoader)
