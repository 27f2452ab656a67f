# Whole updates in simulated time. The world runs the module's worker threads as fibers.
add_library(virtual_world STATIC support/Fiber.cpp support/VirtualWorld.cpp)
target_link_libraries(virtual_world PUBLIC test_support)
target_link_options(virtual_world INTERFACE -Wl,--wrap=pthread_create -Wl,--wrap=pthread_join)

peripheral_test(simulation_tests LABEL simulation
  LONG "*.OfMoreThan16MiB*"
  SOURCES
    simulation/CanUpdateTest.cpp
    simulation/MixedListTest.cpp
    simulation/SanyoUpdateTest.cpp
    simulation/UpdateBench.cpp
  LIBRARIES module_on_virtual_platform virtual_world simulator leak_suppressions)
