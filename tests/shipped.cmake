# What is shipped, as those see it who receive it: packages, built files, manual pages, documents. Each test is a
# Python file that finds what it looks at by these variables.
find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)
set(shipped_environment
  SOURCE=${PROJECT_SOURCE_DIR} BUILD=${CMAKE_BINARY_DIR} CXX=${CMAKE_CXX_COMPILER} PYTHONDONTWRITEBYTECODE=1)
if(PERIPHERAL_FORTIFY)
  list(APPEND shipped_environment FORTIFIED=1)
endif()

# shipped_test(name): tests/shipped/<name>_test.py. Those that pack and build take a processor of their own.
function(shipped_test name)
  add_test(NAME Shipped.${name}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/shipped/${name}_test.py)
  set_tests_properties(Shipped.${name} PROPERTIES
    LABELS integration TIMEOUT ${test_timeout} ENVIRONMENT "${shipped_environment}")
endfunction()

shipped_test(manuals)
shipped_test(documents)
shipped_test(log_texts)
shipped_test(doxygen)
shipped_test(udev)
# Sanitizers and coverage bring libraries and code of their own into the files.
if(NOT measured_build)
  shipped_test(packages)
  shipped_test(hardening)
  shipped_test(abi)
  shipped_test(commands)
endif()
