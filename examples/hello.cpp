// SPDX-License-Identifier: MIT
// vexutil-hello: the smallest use of libvexutil. One member function is
// subscribed, one event is published synchronously, and the subscription is
// withdrawn again. Exits 0 when the handler saw the event exactly once.
#include <cstdio>

#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"
#include "vexutil/version/Version.h"

using vexutil::eventmgr::EventMgr;
using vexutil::inputreqevt::InputRequestEvent;

class StatusLine {
 public:
  // Runs on the manager's dispatcher thread.
  void onInputRequest(const InputRequestEvent& event) {
    ++seen;
    std::printf("input requested: status 0x%08x, flag %s\n", static_cast<unsigned>(event.getCombinedStatus()),
                event.getFlag() ? "on" : "off");
  }
  int seen = 0;
};

int main() {
  std::printf("libvexutil %s\n", libvexutil_version);
  EventMgr* const manager = EventMgr::instance();
  StatusLine statusLine;
  manager->subscribe(InputRequestEvent::typeName(), &statusLine, &StatusLine::onInputRequest);
  manager->publish(InputRequestEvent(1, 2, 3, true));  // Synchronous: returns after delivery.
  manager->unSubscribe(InputRequestEvent::typeName(), &statusLine, &StatusLine::onInputRequest);
  return statusLine.seen == 1 ? 0 : 1;
}
