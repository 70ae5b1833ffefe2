# Installs the built project into a temporary prefix, then configures, builds
# and runs a small consumer project against the installed package, once with
# find_package and once with pkg-config.
foreach(var SOURCE_DIR BUILD_DIR WORK_DIR)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is required")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")

# find_package(vexutil CONFIG)
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/build"
    "-DCMAKE_PREFIX_PATH=${prefix}" -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer")
if(NOT LAST_OUTPUT MATCHES "consumer: delivered 3 events, version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+")
  message(FATAL_ERROR "unexpected consumer output: ${LAST_OUTPUT}")
endif()
message(STATUS "find_package consumer: ${LAST_OUTPUT}")

# pkg-config
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig:${prefix}/lib/x86_64-linux-gnu/pkgconfig")
run(${PKG_CONFIG} --cflags --libs vexutil)
string(STRIP "${LAST_OUTPUT}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
find_program(CXX NAMES c++ g++ REQUIRED)
run(${CXX} -std=c++17 "${SOURCE_DIR}/tests/consumer/consumer.cpp" -o "${WORK_DIR}/consumer-pc" ${flags}
    "-Wl,-rpath,${prefix}/lib")
run("${WORK_DIR}/consumer-pc")
if(NOT LAST_OUTPUT MATCHES "consumer: delivered 3 events")
  message(FATAL_ERROR "unexpected pkg-config consumer output: ${LAST_OUTPUT}")
endif()
message(STATUS "pkg-config consumer: ${LAST_OUTPUT}")
