# The module's object, its factory and its loaders.
peripheral_test(module_object_test LABEL unit
  SOURCES
    unit/module/CanXModemLoaderTest.cpp
    unit/module/LoaderFactoryTest.cpp
    unit/module/LoaderFixture.cpp
    unit/module/PeripheralLoaderTest.cpp
    unit/module/SanyoXModemLoaderTest.cpp
    unit/module/XModemLoadersTest.cpp
  LIBRARIES module_on_virtual_platform injected_failures)

# The loader and a terminal, all of it real. NATIVE is what opens a serial port; tests/platform.cmake tells why.
peripheral_test(preparation_on_terminal_test LABEL unit
  NATIVE "*.PassesBeforeAndAfterAnInstallationHasOpenedIt"
  SOURCES unit/module/PreparationOnTerminalTest.cpp
  LIBRARIES feature swlinfra platform_common platform_system test_support)

# The library as it is shipped.
peripheral_test(exports_test LABEL unit
  SOURCES unit/module/ExportsTest.cpp
  LIBRARIES platform_headers test_support ${CMAKE_DL_LIBS})
add_dependencies(exports_test PeripheralLoader)
target_compile_definitions(exports_test PRIVATE
  MODULE_LIBRARY="$<TARGET_FILE:PeripheralLoader>"
  PLATFORM_LIBRARY_NAME="$<TARGET_SONAME_FILE_NAME:platform>"
  NM_PROGRAM="${CMAKE_NM}"
  READELF_PROGRAM="${CMAKE_READELF}"
  COMPILE_COMMANDS="${CMAKE_BINARY_DIR}/compile_commands.json")
