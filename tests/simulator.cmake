peripheral_test(simulator_tests LABEL unit
  SOURCES
    unit/simulator/DialogueTest.cpp
    unit/simulator/LineTest.cpp
    unit/simulator/MemoryTest.cpp
    unit/simulator/OptionsTest.cpp
    unit/simulator/ProgramTest.cpp
    unit/simulator/ScriptedHost.cpp
    unit/simulator/XmodemReceiverTest.cpp
    unit/simulator/XmodemSenderTest.cpp
    unit/simulator/XmodemTest.cpp
  LIBRARIES simulator)
target_compile_definitions(simulator_tests PRIVATE
  BOOTLOADER_SIMULATOR="$<TARGET_FILE:bootloader-simulator>")
add_dependencies(simulator_tests bootloader-simulator)
