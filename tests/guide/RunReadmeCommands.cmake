# SPDX-License-Identifier: MIT
# Runs README.md's first ```sh block with "cmake --install" as a newcomer would (bash, stopping at the first failure),
# prefix, build directory and hello.cpp pointed here; both builds must print the greeting.
#   cmake -DREADME=<README.md> -DSOURCE_DIR=<source> -DBUILD_DIR=<build> -DWORK_DIR=<scratch> -P RunReadmeCommands.cmake
foreach(var README SOURCE_DIR BUILD_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunReadmeCommands.cmake needs ${var}")
  endif()
endforeach()

file(READ "${README}" text)
string(REGEX MATCH "```sh\n[^`]*cmake --install[^`]*```" block "${text}")
if(NOT block)
  message(FATAL_ERROR "${README}: no ```sh block with cmake --install")
endif()
# The block's body, with the prefix, the build directory and the example's path pointed here.
string(REGEX REPLACE "^```sh\n(.*)```$" "\\1" commands "${block}")
foreach(pair "/opt/vexutil|${WORK_DIR}/prefix" "build/default|${BUILD_DIR}"
             "examples/hello.cpp|${SOURCE_DIR}/examples/hello.cpp")
  string(REPLACE "|" ";" pair "${pair}")
  list(GET pair 0 shown)
  list(GET pair 1 here)
  string(REPLACE "${shown}" "${here}" commands "${commands}")
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
file(WRITE "${WORK_DIR}/commands.sh" "set -euo pipefail\n${commands}")
execute_process(COMMAND bash "${WORK_DIR}/commands.sh"
  WORKING_DIRECTORY "${WORK_DIR}"
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REGEX MATCHALL "input requested: status 0x00020301, flag on" greetings "${out}")
list(LENGTH greetings count)
if(NOT result EQUAL 0 OR NOT count EQUAL 2)
  message(FATAL_ERROR "the README's install commands failed (exit ${result}, ${count} of 2 greetings)\n"
    "--- commands ---\n${commands}\n--- standard output ---\n${out}\n--- standard error ---\n${err}")
endif()
