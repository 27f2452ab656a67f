# NATIVE is what an emulator needs more time for than the program.
peripheral_test(simulator_tests LABEL unit NATIVE "Program.IdlesWithoutUsingTheProcessor"
  SOURCES
    unit/simulator/DialogueTest.cpp
    unit/simulator/LineTest.cpp
    unit/simulator/MemoryTest.cpp
    unit/simulator/OptionsTest.cpp
    unit/simulator/ProgramTest.cpp
    unit/simulator/ScenarioTest.cpp
    unit/simulator/ScriptedHost.cpp
    unit/simulator/XmodemReceiverTest.cpp
    unit/simulator/XmodemSenderTest.cpp
    unit/simulator/XmodemTest.cpp
  LIBRARIES simulator)
test_starts(simulator_tests BOOTLOADER_SIMULATOR bootloader-simulator)
target_include_directories(simulator_tests PRIVATE support)
target_compile_definitions(simulator_tests PRIVATE SCENARIOS="${PROJECT_SOURCE_DIR}/docs/scenarios")
