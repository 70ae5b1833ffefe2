// SPDX-License-Identifier: MIT
/// \file
/// Symbol visibility of libvexutil.
///
/// The library is built with hidden visibility; only what is marked
/// VEXUTIL_API is exported. Exception and event classes are marked as a whole
/// so that their type information is shared across the library boundary and a
/// host can catch and match them.
#ifndef VEXUTIL_EXPORT_H
#define VEXUTIL_EXPORT_H

#if defined(__GNUC__)
#define VEXUTIL_API __attribute__((visibility("default")))
#define VEXUTIL_HIDDEN __attribute__((visibility("hidden")))
#else
#define VEXUTIL_API
#define VEXUTIL_HIDDEN
#endif

/// \def VEXUTIL_API
/// Marks a class, function or variable as part of the library's interface:
/// exported from the shared library, with one identity (type information,
/// static members) in every module of the process that uses it. Empty for
/// compilers other than GCC and Clang.

/// \def VEXUTIL_HIDDEN
/// Marks a declaration as internal to the module that defines it. Empty for
/// compilers other than GCC and Clang.

#endif  // VEXUTIL_EXPORT_H
