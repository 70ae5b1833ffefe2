// Symbol visibility of libvexutil.
//
// The library is built with hidden visibility; only what is marked
// VEXUTIL_API is exported. Exception and event classes are marked as a whole
// so that their type information is shared across the library boundary and a
// host can catch and match them.
#ifndef VEXUTIL_EXPORT_H
#define VEXUTIL_EXPORT_H

#if defined(__GNUC__)
#define VEXUTIL_API __attribute__((visibility("default")))
#define VEXUTIL_HIDDEN __attribute__((visibility("hidden")))
#else
#define VEXUTIL_API
#define VEXUTIL_HIDDEN
#endif

#endif  // VEXUTIL_EXPORT_H
