# SPDX-License-Identifier: MIT
# Proves that the build date follows SOURCE_DATE_EPOCH in the compiler's date
# form: English month, day padded with a space, in UTC.
cmake_minimum_required(VERSION 3.25)
if(NOT SOURCE_DIR OR NOT WORK_DIR)
  message(FATAL_ERROR "SOURCE_DIR and WORK_DIR are required")
endif()
set(header "${WORK_DIR}/build_date_check.h")
# Seconds since the epoch, and the date the compiler would print for them.
foreach(case "1704153600=Jan  2 2024" "1733097599=Dec  1 2024" "1789775999=Sep 18 2026" "1696118400=Oct  1 2023")
  string(REPLACE "=" ";" case "${case}")
  list(GET case 0 epoch)
  list(GET case 1 expected)
  file(REMOVE "${header}")
  execute_process(COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${epoch}
      ${CMAKE_COMMAND} -DOUTPUT=${header} -P ${SOURCE_DIR}/cmake/WriteBuildDate.cmake
    RESULT_VARIABLE result)
  file(READ "${header}" content)
  if(NOT result EQUAL 0 OR NOT content MATCHES "#define VEXUTIL_BUILD_DATE \"${expected}\"\n")
    message(FATAL_ERROR "SOURCE_DATE_EPOCH=${epoch}: expected \"${expected}\", got: ${content}")
  endif()
endforeach()
