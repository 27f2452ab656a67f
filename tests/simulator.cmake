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
test_starts(simulator_tests BOOTLOADER_SIMULATOR bootloader-simulator)
