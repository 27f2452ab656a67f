# The formatting library as headers, which are the same for every processor. The description that comes with the
# package refuses the others.
find_path(FMT_INCLUDE_DIR fmt/format.h REQUIRED)
add_library(fmt::fmt-header-only INTERFACE IMPORTED)
target_include_directories(fmt::fmt-header-only INTERFACE ${FMT_INCLUDE_DIR})
target_compile_definitions(fmt::fmt-header-only INTERFACE FMT_HEADER_ONLY)
