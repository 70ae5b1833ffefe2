# SPDX-License-Identifier: MIT
# Builds the target `docs` of a configured build directory and checks what it
# made: with Doxygen, the API reference with the pages of docs/ and the
# threading diagram; without it, the one-line message that says how to get it.
#
#   cmake -DBUILD_DIR=<build> -DWITH_DOXYGEN=<ON|OFF> -P CheckDocsTarget.cmake
if(NOT DEFINED BUILD_DIR OR NOT DEFINED WITH_DOXYGEN)
  message(FATAL_ERROR "CheckDocsTarget.cmake needs BUILD_DIR and WITH_DOXYGEN")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${BUILD_DIR}" --target docs
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "building the target docs failed (${result}):\n${out}\n${err}")
endif()
if(WITH_DOXYGEN)
  foreach(page index.html md_docs_threading.html md_docs_guide.html threading.svg
               classvexutil_1_1eventmgr_1_1EventMgr.html)
    if(NOT EXISTS "${BUILD_DIR}/docs/html/${page}")
      message(FATAL_ERROR "the API reference lacks ${page}")
    endif()
  endforeach()
elseif(NOT out MATCHES "Doxygen was not found; install it with: bash scripts/install-deps.sh docs")
  message(FATAL_ERROR "without Doxygen the target docs must say how to get it:\n${out}")
endif()
