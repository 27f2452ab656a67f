# fmt::fmt, the formatting library: Debian's shared one, or for another processor its headers alone, which compile
# three times as long. The description that comes with the package refuses other processors.
find_path(FMT_INCLUDE_DIR fmt/format.h REQUIRED)
add_library(fmt::fmt INTERFACE IMPORTED)
target_include_directories(fmt::fmt INTERFACE ${FMT_INCLUDE_DIR})
if(CMAKE_CROSSCOMPILING)
  target_compile_definitions(fmt::fmt INTERFACE FMT_HEADER_ONLY)
else()
  find_library(FMT_LIBRARY fmt REQUIRED)
  target_link_libraries(fmt::fmt INTERFACE ${FMT_LIBRARY})
endif()
