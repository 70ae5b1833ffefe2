// SPDX-License-Identifier: MIT
// libhx: the host application's utility library (stand-in implementation).
//
// Overview
//   The host that loads libvexutil provides a small C utility library for text
//   output and for telling its main thread apart. This folder builds a real,
//   minimal implementation of exactly that interface so that libvexutil, its
//   tests and examples run without a host. A real host's library replaces it
//   through the VEXUTIL_HOST_PLATFORM CMake setting (see README.md).
//
// Thread safety
//   Every function may be called from any thread at any time.
#ifndef LIBHX_H
#define LIBHX_H

#if defined(__GNUC__)
#define HX_API __attribute__((visibility("default")))
#define HX_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define HX_API
#define HX_PRINTF_LIKE(fmt, args)
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Formats like printf and writes the text to standard output, then flushes it.
// Returns the number of bytes written, or a negative value on an output error.
// A null format writes nothing and returns -1.
HX_API int hxPrintf(const char* format, ...) HX_PRINTF_LIKE(1, 2);

// Writes `line` and a line end to standard output, then flushes it. Returns a
// non-negative value on success, or a negative value on an output error. A
// null line writes nothing and returns -1.
HX_API int hxPuts(const char* line);

// Non-zero when the calling thread is the process's main thread (the host's
// "signal thread", which owns the user interface); zero on every other thread.
HX_API int hxIsSignalThread(void);

#ifdef __cplusplus
}
#endif

#endif  // LIBHX_H
