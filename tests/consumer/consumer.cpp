// SPDX-License-Identifier: MIT
// Uses the installed library as a host would: a subscriber, three events,
// a synchronous publish to wait for them, and the version string. The host
// platform's headers come from the exported target's (or pkg-config's)
// include path, wherever the platform is installed.
#include <atomic>
#include <cstdio>

#include "Corvane/System/ThreadId.h"
#include "libhx.h"

#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"
#include "vexutil/version/Version.h"

namespace {
struct Counter {
  std::atomic<int> seen{0};
  void onInput(const vexutil::inputreqevt::InputRequestEvent& /*event*/) { ++seen; }
};
}  // namespace

int main() {
  using vexutil::eventmgr::EventMgr;
  Counter counter;
  EventMgr* manager = EventMgr::instance();
  manager->subscribe("InputRequestEvent", &counter, &Counter::onInput);
  manager->publish(vexutil::inputreqevt::InputRequestEvent(1, 2, 3, false), false);
  manager->publish(vexutil::inputreqevt::InputRequestEvent(4, 5, 6, true), false);
  manager->publish(vexutil::inputreqevt::InputRequestEvent(), true);
  manager->unSubscribe("InputRequestEvent", &counter, &Counter::onInput);
  std::printf("consumer: delivered %d events, version %s\n", counter.seen.load(), libvexutil_version);
  return counter.seen.load() == 3 ? 0 : 1;
}
