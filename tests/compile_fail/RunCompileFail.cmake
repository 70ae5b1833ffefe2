# SPDX-License-Identifier: MIT
# Compiles SOURCE (syntax only) and passes when the compiler rejects it with a
# message that matches the "// expect:" line of the source. FLAGS are the
# build's own compiler flags, so that sanitizer builds check the same way.
file(STRINGS ${SOURCE} expect_line REGEX "^// expect: ")
if(NOT expect_line)
  message(FATAL_ERROR "${SOURCE} has no '// expect:' line")
endif()
string(REGEX REPLACE "^// expect: " "" expected "${expect_line}")
separate_arguments(arguments UNIX_COMMAND "${FLAGS}")
list(APPEND arguments -std=c++17 -fsyntax-only)
foreach(dir IN LISTS INCLUDE_DIRS)
  list(APPEND arguments -I${dir})
endforeach()
execute_process(COMMAND ${COMPILER} ${arguments} ${SOURCE}
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(result EQUAL 0)
  message(FATAL_ERROR "${SOURCE} compiled, but must not")
endif()
if(NOT output MATCHES "${expected}")
  message(FATAL_ERROR "${SOURCE} failed without the expected message '${expected}':\n${output}")
endif()
message(STATUS "rejected as expected: ${expected}")
