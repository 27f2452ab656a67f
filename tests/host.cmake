# Small shared libraries that stand for the module: one that plays what its feature id asks for, and some that
# are no peripheral loader.
function(fake_module name)
  add_library(${name} MODULE unit/host/modules/${name}.cpp)
  target_link_libraries(${name} PRIVATE platform)
  set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fakes)
endfunction()
fake_module(FakeModule)
fake_module(WrongTypeModule)
fake_module(NoTypeModule)
fake_module(NoCreateModule)

# As for the platform's tests, QEMU does not know how a line's speed is read.
peripheral_test(host_tests LABEL unit
  NATIVE "Preflight.ASpeedThatThePortsDriver*:LineEar.*"
  SOURCES
    support/IoctlDouble.cpp
    unit/host/CommandLineTest.cpp
    unit/host/ConfigurationTest.cpp
    unit/host/LineEarTest.cpp
    unit/host/LogFollowerTest.cpp
    unit/host/DigestTest.cpp
    unit/host/EventBrokerTest.cpp
    unit/host/FeatureModuleTest.cpp
    unit/host/JsonOutputTest.cpp
    unit/host/OutputFileTest.cpp
    unit/host/PeripheralctlTest.cpp
    unit/host/PortsTest.cpp
    unit/host/PreflightTest.cpp
    unit/host/ProgressDisplayTest.cpp
    unit/host/PropertyStoreTest.cpp
    unit/host/ReportTest.cpp
    unit/host/RunLogTest.cpp
    unit/host/SourceFilesTest.cpp
    unit/host/TerminalTest.cpp
    unit/host/TransferRateTest.cpp
    unit/host/TrustTest.cpp
    unit/host/UpdateControllerTest.cpp
    unit/host/report/RunReportTest.cpp
    unit/host/trace/DialogueTest.cpp
    unit/host/trace/LineTapTest.cpp
    unit/host/trace/RecordTest.cpp
    unit/host/trace/RecorderTest.cpp
  LIBRARIES host)
target_include_directories(host_tests PRIVATE support)
test_starts(host_tests PERIPHERALCTL peripheralctl)
add_dependencies(host_tests FakeModule WrongTypeModule NoTypeModule NoCreateModule)
target_link_options(host_tests PRIVATE -Wl,--wrap=fsync)
target_compile_definitions(host_tests PRIVATE
  DOCUMENTS="${PROJECT_SOURCE_DIR}/docs"
  UDEV_RULES="${PROJECT_SOURCE_DIR}/packaging/78-peripheral-loader.rules"
  FAKE_MODULES="${CMAKE_BINARY_DIR}/fakes/")
