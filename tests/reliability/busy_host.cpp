// SPDX-License-Identifier: MIT
// A host that leaves the manager busy: a plug-in the unload test dlopen()s, calls (leave_busy) and dlclose()s, and a
// program that exits so, one mode per ctest test (RunExitProgram.cmake wants exit 0, the mode's line, no sanitizer
// report): busy (a long queue), waiting (dispatcher held in a delivery, threads waiting in a list subscribe and a
// synchronous publish), handoff (dispatcher blocked in an unserved hand-off). The hold ends at exit or unload, before
// the library's teardown; everything a delivery touches is trivially destructible.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

using namespace vexutil::eventmgr;  // NOLINT(google-build-using-namespace): the library under test.
using Names = std::vector<std::string>;

// External linkage throughout: the subscriber's ClientAdapter class tag is
// then a symbol that GCC would make GNU-unique (see CMakeLists.txt).
namespace busy_host {

std::atomic<bool> holding{false};
std::atomic<bool> released{false};

// Runs when the plug-in is unloaded, before the library's teardown. A
// program's destructor functions run after it: main registers this with atexit.
__attribute__((destructor)) void release() { released.store(true); }

class BusyEvent : public BaseEvent {
 public:
  explicit BusyEvent(const char* name) : BaseEvent(Names{name}) {}
  BusyEvent* clone() const override { return new BusyEvent(*this); }
};

// Subscribed through ClientAdapter, as most hosts subscribe.
struct Subscriber {
  void onEvent(const BaseEvent& /*event*/) {}
  void onHold(const BaseEvent& /*event*/) {
    holding.store(true);
    while (!released.load()) {
      std::this_thread::yield();
    }
  }
  void onHandOff(const BaseEvent& /*event*/) {
    holding.store(true);
    ToDoAdapter::runOnceOnMainThreadImpl([] { std::puts("hand-off ran"); });
  }
};
Subscriber subscribers[4];

}  // namespace busy_host

using namespace busy_host;
using Client = ClientAdapter<Subscriber, BaseEvent>;

// Subscribes in every form, has an event held back, holds the dispatcher
// (hold 1: in a delivery, 2: in a hand-off; 0: not at all), queues `queued`
// events and returns the length of the queue.
extern "C" __attribute__((visibility("default"))) int leave_busy(int queued, int hold) {
  EventMgr& manager = *EventMgr::instance();
  manager.subscribe("Plain", &subscribers[0], &Subscriber::onEvent);
  manager.subscribe(Names{"Plain", "Other"}, EventMgr::ClientPtr(new Client(&subscribers[1], &Subscriber::onEvent)));
  manager.subscribe(Names{"Edit"}, Names{"Commit"},
                    EventMgr::ClientPtr(new Client(&subscribers[2], &Subscriber::onEvent)));
  manager.subscribe("Hold", &subscribers[3], hold == 2 ? &Subscriber::onHandOff : &Subscriber::onHold);
  manager.publish(BusyEvent("Edit"), true);  // Held back for good.
  if (hold != 0) {
    manager.publish(BusyEvent("Hold"), false);
    while (!holding.load()) {
      std::this_thread::yield();
    }
  }
  for (int i = 0; i < queued; ++i) {
    manager.publish(BusyEvent(i % 2 == 0 ? "Plain" : "Edit"), false);
  }
  return static_cast<int>(manager.getPendingEventCount());
}

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  EventMgr& manager = *EventMgr::instance();
  std::atexit(release);
  leave_busy(mode == "busy" ? 100000 : 5000, mode == "waiting" ? 1 : mode == "handoff" ? 2 : 0);
  if (mode == "waiting") {  // Released by the shutdown, they end without touching anything else.
    const EventMgr::ClientPtr late(new Client(&subscribers[0], &Subscriber::onEvent));
    std::thread([&manager, late] { manager.subscribe(Names{"Late", "Later"}, late); }).detach();
    std::thread([&manager] { manager.publish(BusyEvent("Plain"), true); }).detach();
    while (manager.getPendingEventCount() < 5002) {
      std::this_thread::yield();
    }
  }
  std::printf("%s: pending=%u\n", mode.c_str(), manager.getPendingEventCount());
  return 0;
}
