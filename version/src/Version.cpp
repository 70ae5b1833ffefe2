// SPDX-License-Identifier: MIT
#include "vexutil/version/Version.h"

#include "vexutil_build_date.h"

#ifndef VEXUTIL_VERSION_STRING
#error "VEXUTIL_VERSION_STRING must be defined by the build"
#endif

extern "C" {
const char* const libvexutil_version = VEXUTIL_VERSION_STRING;
const char* const libvexutil_build_date = VEXUTIL_BUILD_DATE;
}
