# Stands between an executable and the C library, so that calls fail which cannot be made to fail otherwise.
add_library(injected_failures STATIC support/InjectedFailures.cpp)
target_include_directories(injected_failures PUBLIC support)
target_link_options(injected_failures INTERFACE
  -Wl,--wrap=malloc -Wl,--wrap=free -Wl,--wrap=fwrite -Wl,--wrap=pthread_create -Wl,--wrap=pthread_join)

add_library(engine_test_support STATIC support/FakeXModem.cpp support/Wire.cpp)
target_include_directories(engine_test_support PUBLIC $<TARGET_PROPERTY:feature,INTERFACE_INCLUDE_DIRECTORIES>)
target_link_libraries(engine_test_support PUBLIC test_support)

peripheral_test(module_engine_tests LABEL unit
  SOURCES
    unit/module/CanXModemSwlTest.cpp
    unit/module/XModemFramingTest.cpp
    unit/module/XModemReceiverTest.cpp
    unit/module/XModemSenderTest.cpp
    unit/module/XModemSwlTest.cpp
  LIBRARIES module_on_virtual_platform engine_test_support injected_failures leak_suppressions)
