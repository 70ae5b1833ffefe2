// SPDX-License-Identifier: MIT
// Visibility macro of the Corvane::System stand-in library.
#ifndef CORVANE_SYSTEM_EXPORT_H
#define CORVANE_SYSTEM_EXPORT_H

#if defined(__GNUC__)
#define CORVANE_SYSTEM_API __attribute__((visibility("default")))
#else
#define CORVANE_SYSTEM_API
#endif

#endif  // CORVANE_SYSTEM_EXPORT_H
