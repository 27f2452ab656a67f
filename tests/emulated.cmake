# The shipped libraries on a real kernel, in an emulated amd64 machine that takes the build's binaries. Builds with
# sanitizers or coverage stay out: the machine has neither their runtimes nor a place for what they write, and every
# line that runs there is run by the unit tests as well.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64" AND NOT measured_build)
  add_executable(emulated_init emulated/Init.cpp)
  add_executable(emulated_maintenance emulated/Checks.cpp emulated/MaintenanceTest.cpp)
  target_include_directories(emulated_maintenance PRIVATE ${PROJECT_SOURCE_DIR}/SWLInfra/src)
  target_link_libraries(emulated_maintenance PRIVATE PeripheralLoader platform)

  add_test(NAME EmulatedMachine.Maintenance
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/emulated/run ${CMAKE_BINARY_DIR}/emulated
      $<TARGET_FILE:emulated_init> $<TARGET_FILE:emulated_maintenance> $<TARGET_FILE:maintenance_example>
      $<TARGET_FILE:PeripheralLoader> $<TARGET_FILE:platform>)
  set_tests_properties(EmulatedMachine.Maintenance PROPERTIES LABELS long TIMEOUT 600)
endif()
