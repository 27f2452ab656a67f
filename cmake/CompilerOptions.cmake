# What every target of the tree is compiled with.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
# The binaries of a build find each other wherever the build folder is moved to.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_package(Threads REQUIRED)
find_program(CCACHE ccache)
if(CCACHE)
  # It keeps what was compiled with precompiled headers only if it is told that they are what they seem.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
endif()

add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Werror
  # Log lines name files as the repository does.
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  # The percentages are prescribed double arithmetic; a fused multiply-add would round differently.
  -ffp-contract=off)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Files above 2 GiB and times after January 2038 are there too.
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
add_link_options(-Wl,--as-needed)

# Without exceptions only what the code itself decides counts as a branch: the module neither throws nor catches,
# but each of its calls has a second way out as long as one may pass through.
set(PERIPHERAL_MODULE_OPTIONS "" CACHE STRING "Further options to compile the module and SWLInfra with")

if(PERIPHERAL_SANITIZE)
  add_compile_options(-fsanitize=${PERIPHERAL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${PERIPHERAL_SANITIZE})
endif()

# unhurried(SOURCE ...): sources of the folder that are mostly other people's templates, for options, settings and
# reports. Their own speed nobody feels, and optimised they take three times as long to compile, instrumented even more.
option(PERIPHERAL_QUICK_BUILD "Leave unoptimised what takes long to compile and whose speed nobody feels" OFF)
function(unhurried)
  if(PERIPHERAL_QUICK_BUILD)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O0)
  endif()
endfunction()
