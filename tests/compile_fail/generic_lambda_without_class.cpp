// SPDX-License-Identifier: MIT
// A generic lambda cannot name its event class.
// expect: cannot tell the event class from this handler
#include "vexutil/eventmgr/Subscription.h"

vexutil::eventmgr::Subscription mistake() {
  return vexutil::eventmgr::subscribe("Edit", [](const auto& /*event*/) {});
}
