# SPDX-License-Identifier: MIT
# The library's objects as a static archive, vexutil_internals, through which
# the tests and the benchmarks reach the internal parts (eventmgr/src)
# directly. Included by each of them; made once. Not installed.
include_guard(GLOBAL)
add_library(vexutil_internals STATIC $<TARGET_OBJECTS:vexutil_objects>)
vexutil_link_core(vexutil_internals)
target_include_directories(vexutil_internals PUBLIC ${PROJECT_SOURCE_DIR}/eventmgr/src)
