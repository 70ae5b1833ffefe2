# SPDX-License-Identifier: MIT
# Installs into a scratch prefix and builds and runs the consumer against it with find_package and with pkg-config;
# the stand-in host's headers must stay out of the top include directory. With EXTERNAL_HOST, the library built
# against a host platform elsewhere (a copy of the installed stand-in) must serve the same consumer.
cmake_minimum_required(VERSION 3.25)
foreach(var SOURCE_DIR BUILD_DIR WORK_DIR LIBDIR)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is required")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# Builds and runs the consumer against the package installed in prefix, with
# find_package and with pkg-config; name tells the runs apart.
function(consume prefix name)
  run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/${name}-build"
      "-DCMAKE_PREFIX_PATH=${prefix}" -DCMAKE_BUILD_TYPE=Release)
  run(${CMAKE_COMMAND} --build "${WORK_DIR}/${name}-build")
  run("${WORK_DIR}/${name}-build/consumer")
  if(NOT LAST_OUTPUT MATCHES "consumer: delivered 3 events, version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+")
    message(FATAL_ERROR "unexpected ${name} consumer output: ${LAST_OUTPUT}")
  endif()
  message(STATUS "${name}, find_package: ${LAST_OUTPUT}")

  find_program(PKG_CONFIG pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
  run(${PKG_CONFIG} --cflags --libs vexutil)
  string(STRIP "${LAST_OUTPUT}" flags)
  if(NOT flags MATCHES "-I${prefix}/include( |$)")
    message(FATAL_ERROR "pkg-config's include path is not the canonical ${prefix}/include: ${flags}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  find_program(CXX NAMES c++ g++ REQUIRED)
  run(${CXX} -std=c++17 "${SOURCE_DIR}/tests/consumer/consumer.cpp" -o "${WORK_DIR}/${name}-consumer-pc" ${flags}
      "-Wl,-rpath,${prefix}/${LIBDIR}")
  run("${WORK_DIR}/${name}-consumer-pc")
  if(NOT LAST_OUTPUT MATCHES "consumer: delivered 3 events")
    message(FATAL_ERROR "unexpected ${name} pkg-config consumer output: ${LAST_OUTPUT}")
  endif()
  message(STATUS "${name}, pkg-config: ${LAST_OUTPUT}")
endfunction()

set(prefix "${WORK_DIR}/prefix")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
foreach(generic include/libhx.h include/Corvane)
  if(EXISTS "${prefix}/${generic}")
    message(FATAL_ERROR "the stand-in host platform installed ${generic} at the top of the prefix")
  endif()
endforeach()
if(NOT EXISTS "${prefix}/include/vexutil/hostplatform/libhx.h")
  message(FATAL_ERROR "the stand-in host platform's headers are not under include/vexutil/hostplatform")
endif()
consume("${prefix}" standin)

if(EXTERNAL_HOST)
  # The real host's platform lives outside this source tree (CMake refuses to
  # export include directories inside it): a copy of the installed stand-in
  # in a temporary directory, headers and library in a layout of its own.
  set(tmp "$ENV{TMPDIR}")
  if(NOT tmp)
    set(tmp /tmp)
  endif()
  string(RANDOM LENGTH 10 suffix)
  set(host "${tmp}/vexutil-consumer-host-${suffix}")
  file(COPY "${prefix}/include/vexutil/hostplatform/" DESTINATION "${host}/include")
  file(GLOB host_libraries "${prefix}/${LIBDIR}/libvexhost.so*")
  file(COPY ${host_libraries} DESTINATION "${host}/lib")
  set(external_prefix "${WORK_DIR}/external-prefix")
  set(launcher "")
  if(COMPILER_LAUNCHER)
    set(launcher "-DCMAKE_CXX_COMPILER_LAUNCHER=${COMPILER_LAUNCHER}")
  endif()
  # Built unoptimised and on every core: what is checked here is the build's
  # configuration and installed layout, not the code generated.
  run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/library-external-host" ${launcher}
      -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-O0"
      -DVEXUTIL_BUILD_TESTS=OFF -DVEXUTIL_BUILD_BENCHMARKS=OFF -DVEXUTIL_BUILD_EXAMPLES=OFF
      -DVEXUTIL_HOST_PLATFORM=external
      "-DVEXUTIL_HOST_INCLUDE_DIRS=${host}/include"
      "-DVEXUTIL_HOST_LIBRARIES=${host}/lib/libvexhost.so")
  run(${CMAKE_COMMAND} --build "${WORK_DIR}/library-external-host" --parallel)
  run(${CMAKE_COMMAND} --install "${WORK_DIR}/library-external-host" --prefix "${external_prefix}")
  if(EXISTS "${external_prefix}/include/vexutil/hostplatform")
    message(FATAL_ERROR "a build with an external host platform installed the stand-in's headers")
  endif()
  consume("${external_prefix}" external)
  file(REMOVE_RECURSE "${host}")
endif()
