# The Sanyo device's upload session.
peripheral_test(module_sanyo_tests LABEL unit
  SOURCES unit/module/SanyoXModemSwlTest.cpp
  LIBRARIES module_on_virtual_platform engine_test_support injected_failures leak_suppressions)
