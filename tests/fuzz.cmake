# Fuzz targets of libFuzzer, for the preset "fuzz"; script/fuzz runs them. Their corpora are tests as well.

set(FUZZ_CORPORA ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus)

# What the host's targets need of it, without its shared platform.
add_library(fuzzed_host STATIC
  ${PROJECT_SOURCE_DIR}/host/Configuration.cpp
  ${PROJECT_SOURCE_DIR}/host/Digest.cpp
  ${PROJECT_SOURCE_DIR}/host/Groups.cpp
  ${PROJECT_SOURCE_DIR}/host/Peripherals.cpp
  ${PROJECT_SOURCE_DIR}/host/Ports.cpp
  ${PROJECT_SOURCE_DIR}/host/Preflight.cpp
  ${PROJECT_SOURCE_DIR}/host/PropertyStore.cpp
  fuzz/AnySpeed.cpp)
target_include_directories(fuzzed_host PUBLIC ${PROJECT_SOURCE_DIR}/host)
target_link_libraries(fuzzed_host PUBLIC platform_headers platform_observation fmt::fmt nettle::nettle)
# The TOML parser (3.3) declares characters from U+FCC6 to U+FEFE unreachable where it looks for blanks, and then finds
# that they are none. Only such a claim is not reported; what would come of it is.
target_compile_options(fuzzed_host PRIVATE -fno-sanitize=unreachable)

# What decodes and reports traces.
add_library(fuzzed_trace STATIC
  ${PROJECT_SOURCE_DIR}/host/ErrorCode.cpp
  ${PROJECT_SOURCE_DIR}/host/Peripherals.cpp
  ${PROJECT_SOURCE_DIR}/host/report/Figures.cpp
  ${PROJECT_SOURCE_DIR}/host/report/HtmlReport.cpp
  ${PROJECT_SOURCE_DIR}/host/report/JsonReport.cpp
  ${PROJECT_SOURCE_DIR}/host/report/RunReport.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/Chart.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/Dialogue.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/Frames.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/Record.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/Steps.cpp
  ${PROJECT_SOURCE_DIR}/host/trace/TextView.cpp)
target_include_directories(fuzzed_trace PUBLIC ${PROJECT_SOURCE_DIR}/host)
target_link_libraries(fuzzed_trace PUBLIC platform_headers fmt::fmt)

add_library(fuzz_support STATIC
  fuzz/Frames.cpp
  fuzz/LineScript.cpp
  fuzz/SourceFile.cpp
  fuzz/Target.cpp)
target_include_directories(fuzz_support PUBLIC fuzz)
target_link_libraries(fuzz_support PUBLIC test_support simulator)

# Its engine may keep what it needs for a file.
add_library(fuzz_reclaimer STATIC fuzz/Reclaimer.cpp)
target_link_options(fuzz_reclaimer INTERFACE
  -Wl,--wrap=malloc -Wl,--wrap=free -Wl,--wrap=fopen -Wl,--wrap=fclose)

# What the fuzzer learns from is the code under test. Comparisons are of no help where CRCs stand in the way; they
# would take half of the time.
foreach(library fuzz_support fuzz_reclaimer test_support)
  target_compile_options(${library} PRIVATE -fno-sanitize=fuzzer-no-link)
endforeach()
foreach(library feature simulator fuzzed_host)
  target_compile_options(${library} PRIVATE -fno-sanitize-coverage=trace-cmp)
endforeach()

add_custom_target(fuzz_targets)

# fuzz_target(name Source LIBRARIES ...): the executable fuzz_<name>, and its corpus as a test.
function(fuzz_target name source)
  cmake_parse_arguments(ARG "" "" "LIBRARIES" ${ARGN})
  add_executable(fuzz_${name} fuzz/${source}.cpp)
  target_link_libraries(fuzz_${name} PRIVATE ${ARG_LIBRARIES} fuzz_support Threads::Threads)
  target_compile_options(fuzz_${name} PRIVATE -fno-sanitize-coverage=trace-cmp)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  add_dependencies(fuzz_targets fuzz_${name})
  add_test(NAME FuzzCorpus.${name} COMMAND fuzz_${name} -runs=0 ${FUZZ_CORPORA}/${name})
  set_tests_properties(FuzzCorpus.${name} PROPERTIES LABELS fuzz TIMEOUT ${test_timeout})
endfunction()

fuzz_target(sender SenderTarget LIBRARIES module_on_virtual_platform fuzz_reclaimer)
fuzz_target(receiver ReceiverTarget LIBRARIES module_on_virtual_platform)
fuzz_target(session SessionTarget LIBRARIES module_on_virtual_platform fuzz_reclaimer)
target_link_options(fuzz_session PRIVATE -Wl,--wrap=pthread_create -Wl,--wrap=pthread_join)
fuzz_target(update-list UpdateListTarget LIBRARIES module_on_virtual_platform fuzzed_host)
fuzz_target(properties PropertiesTarget LIBRARIES module_on_virtual_platform fuzzed_host)
fuzz_target(simulator SimulatorTarget LIBRARIES platform_common)
fuzz_target(options OptionsTarget LIBRARIES platform_common)
fuzz_target(configuration ConfigurationTarget LIBRARIES fuzzed_host platform_common)
fuzz_target(trace TraceTarget LIBRARIES fuzzed_trace platform_common)
