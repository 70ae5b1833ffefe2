# SPDX-License-Identifier: MIT
# Runs a program and checks its exit code and output.
#
#   cmake -DPROGRAM=<path> [-DARGS="<arguments>"] -DEXPECT_EXIT=<code>
#         [-DEXPECT_STDOUT=<regex>] [-DEXPECT_STDERR=<regex>] -P RunProgram.cmake
#
# ARGS is split like a shell command line. Fails (exits non-zero) when the exit
# code differs or an output does not match its regular expression.
if(NOT DEFINED PROGRAM OR NOT DEFINED EXPECT_EXIT)
  message(FATAL_ERROR "RunProgram.cmake needs PROGRAM and EXPECT_EXIT")
endif()
separate_arguments(arguments UNIX_COMMAND "${ARGS}")
execute_process(COMMAND "${PROGRAM}" ${arguments}
  RESULT_VARIABLE exit_code
  OUTPUT_VARIABLE out
  ERROR_VARIABLE err
  TIMEOUT 200)
set(problems "")
if(NOT "${exit_code}" STREQUAL "${EXPECT_EXIT}")
  string(APPEND problems "exit code ${exit_code}, expected ${EXPECT_EXIT}\n")
endif()
if(DEFINED EXPECT_STDOUT AND NOT out MATCHES "${EXPECT_STDOUT}")
  string(APPEND problems "standard output does not match: ${EXPECT_STDOUT}\n")
endif()
if(DEFINED EXPECT_STDERR AND NOT err MATCHES "${EXPECT_STDERR}")
  string(APPEND problems "standard error does not match: ${EXPECT_STDERR}\n")
endif()
if(problems)
  message(FATAL_ERROR "${PROGRAM} ${ARGS}\n${problems}--- standard output ---\n${out}--- standard error ---\n${err}")
endif()
