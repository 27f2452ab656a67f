# The examples of the documents, built as they stand there.
function(documented_example name)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/documentation/${name}.cpp)
  set(document ${PROJECT_SOURCE_DIR}/docs/INTEGRATORS.md)
  set(script ${PROJECT_SOURCE_DIR}/cmake/ExtractExample.cmake)
  add_custom_command(OUTPUT ${source}
    COMMAND ${CMAKE_COMMAND} -DDOCUMENT=${document} -DNAME=${name}.cpp -DOUTPUT=${source} -P ${script}
    DEPENDS ${document} ${script})
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${ARGN})
endfunction()

# What calls the infrastructure's functions is linked with the module; a host loads it.
documented_example(maintenance_example PeripheralLoader platform)
target_include_directories(maintenance_example PRIVATE ${PROJECT_SOURCE_DIR}/SWLInfra/src)
documented_example(host_example platform ${CMAKE_DL_LIBS})
add_dependencies(host_example PeripheralLoader)

peripheral_test(documentation_tests LABEL integration
  SOURCES
    documentation/ExamplesTest.cpp
    support/Process.cpp)
target_include_directories(documentation_tests PRIVATE support)
target_compile_definitions(documentation_tests PRIVATE
  MAINTENANCE_EXAMPLE="$<TARGET_FILE:maintenance_example>"
  HOST_EXAMPLE="$<TARGET_FILE:host_example>"
  MODULE_LIBRARY="$<TARGET_FILE:PeripheralLoader>"
  PLATFORM_LIBRARY="$<TARGET_FILE:platform>"
  BOOTLOADER_SIMULATOR="$<TARGET_FILE:bootloader-simulator>")
add_dependencies(documentation_tests maintenance_example host_example bootloader-simulator)

peripheral_test(command_lines_test LABEL unit
  SOURCES documentation/CommandLinesTest.cpp
  LIBRARIES swlinfra platform_common test_support)
target_link_options(command_lines_test PRIVATE -Wl,--wrap=system)
target_compile_definitions(command_lines_test PRIVATE DOCUMENT="${PROJECT_SOURCE_DIR}/docs/INTEGRATORS.md")
