// SPDX-License-Identifier: MIT
// Library-wide constants that must outlive every other static object of the
// library.
//
// The event type names are used by the dispatcher thread, which the event
// manager's owner joins when it is destroyed at unload or exit. Giving the
// names a higher construction priority than any ordinary static makes them be
// built before, and destroyed after, the manager's owner.
#ifndef VEXUTIL_EVENTMGR_SRC_TYPENAMES_H
#define VEXUTIL_EVENTMGR_SRC_TYPENAMES_H

#if defined(__GNUC__)
#define VEXUTIL_EARLY_STATIC __attribute__((init_priority(200)))
#else
#define VEXUTIL_EARLY_STATIC
#endif

#endif  // VEXUTIL_EVENTMGR_SRC_TYPENAMES_H
