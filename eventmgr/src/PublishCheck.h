// SPDX-License-Identifier: MIT
// The publish check of assertion builds: the copy that publish() makes of an
// event must be of the event's class and carry its type names. A copy of
// another class or with other names would be delivered as something the
// publisher did not publish: subscribers of the derived names would miss it,
// or cast it to a class it is not. Event<Class, Base> rules both mistakes out
// at compile time; this catches hand-written classes.
#ifndef VEXUTIL_EVENTMGR_SRC_PUBLISHCHECK_H
#define VEXUTIL_EVENTMGR_SRC_PUBLISHCHECK_H

#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

#ifndef NDEBUG
// Prints what differs between `event` and `copy`, and the usual causes, to
// standard error and aborts; returns when the copy is faithful.
void assertFaithfulCopy(const BaseEvent& event, const BaseEvent& copy);
#endif

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_PUBLISHCHECK_H
