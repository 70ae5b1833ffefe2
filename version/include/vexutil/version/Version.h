// SPDX-License-Identifier: MIT
/// \file
/// The library's version and build date, exported with C linkage so that a
/// host can read them with dlsym as well as from C++.
///
/// Both are constant strings, set when the library is built; any thread may
/// read them at any time while the library is loaded.
#ifndef VEXUTIL_VERSION_VERSION_H
#define VEXUTIL_VERSION_VERSION_H

#include "vexutil/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/// The dotted four-part version, for example "1.0.0.0".
VEXUTIL_API extern const char* const libvexutil_version;

/// The build date in the compiler's form: three-letter month, space-padded
/// day, four-digit year, for example "Nov  2 2026".
VEXUTIL_API extern const char* const libvexutil_build_date;

#ifdef __cplusplus
}
#endif

#endif  // VEXUTIL_VERSION_VERSION_H
