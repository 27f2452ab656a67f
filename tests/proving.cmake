# Hundreds of thousands of updates in which chosen things go wrong, in simulated time.
find_package(CLI11 REQUIRED)
add_executable(proving-ground
  proving/Campaign.cpp
  proving/Fault.cpp
  proving/FaultyLine.cpp
  proving/Frames.cpp
  proving/LogTexts.cpp
  proving/Oracles.cpp
  proving/Replay.cpp
  proving/Resources.cpp
  proving/Run.cpp
  proving/Scenario.cpp
  proving/SourceFolder.cpp
  proving/Storm.cpp
  proving/TransferWatch.cpp
  proving/Workers.cpp
  proving/main.cpp)
target_link_libraries(proving-ground PRIVATE
  module_on_virtual_platform virtual_world simulator leak_suppressions CLI11::CLI11)
add_dependencies(tests proving-ground)
target_link_options(proving-ground PRIVATE
  -Wl,--wrap=malloc -Wl,--wrap=free -Wl,--wrap=fopen -Wl,--wrap=fopen64 -Wl,--wrap=fclose -Wl,--wrap=fread)
# The world's own speed decides how much of it can be seen; its options are read once.
target_compile_options(proving-ground PRIVATE -O2)
set_source_files_properties(proving/main.cpp PROPERTIES COMPILE_OPTIONS -O0)

# A sample for every day. Instrumented builds and emulated processors are some ten times slower and run fewer.
set(proving_runs 20000)
if(measured_build OR CMAKE_CROSSCOMPILING)
  set(proving_runs 2000)
endif()
add_test(NAME ProvingGround.ASampleOfRunsKeepsEveryPromise COMMAND proving-ground --runs ${proving_runs})
set_tests_properties(ProvingGround.ASampleOfRunsKeepsEveryPromise PROPERTIES
  LABELS simulation TIMEOUT ${test_timeout} PROCESSORS 2)

peripheral_test(oracles_test LABEL unit
  SOURCES
    proving/Fault.cpp
    proving/Frames.cpp
    proving/LogTexts.cpp
    proving/Oracles.cpp
    proving/OraclesTest.cpp
    proving/Scenario.cpp
    proving/Storm.cpp
  LIBRARIES platform_headers simulator)
