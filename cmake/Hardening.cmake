# What makes a fault of the shipped code harder to use. tests/shipped/hardening looks for it in the built files.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# Checked variants of the C library's calls want an optimising compiler, and tests that make such a call fail do not
# know them; so they are for what is shipped.
option(PERIPHERAL_FORTIFY "Let the C library check the sizes of buffers" OFF)

# harden(target ...): compiles and links the targets so.
function(harden)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE -fstack-protector-strong -fstack-clash-protection)
    if(PERIPHERAL_FORTIFY)
      # It also makes GCC complain of results that are dropped by a cast, as they are on purpose.
      target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -Wno-unused-result)
    endif()
    get_target_property(type ${target} TYPE)
    if(type MATCHES "SHARED_LIBRARY|EXECUTABLE")
      target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    endif()
  endforeach()
endfunction()
