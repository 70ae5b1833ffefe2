# SPDX-License-Identifier: MIT
# Runs a program and checks that it exits with code 0 and prints a line.
#
#   cmake -DPROGRAM=<path> -DMODE=<argument> -DEXPECT_STDOUT=<regex> -P RunExitProgram.cmake
#
# The exit code catches a crash or a sanitizer report at exit (both make it
# non-zero); ctest's TIMEOUT on the test catches an exit that hangs.
execute_process(COMMAND "${PROGRAM}" "${MODE}"
  RESULT_VARIABLE exit_code
  OUTPUT_VARIABLE out
  ERROR_VARIABLE err)
set(problems "")
if(NOT "${exit_code}" STREQUAL "0")
  string(APPEND problems "exit code ${exit_code}, expected 0\n")
endif()
if(NOT out MATCHES "${EXPECT_STDOUT}")
  string(APPEND problems "standard output does not match: ${EXPECT_STDOUT}\n")
endif()
if(problems)
  message(FATAL_ERROR "${PROGRAM} ${MODE}\n${problems}--- standard output ---\n${out}--- standard error ---\n${err}")
endif()
