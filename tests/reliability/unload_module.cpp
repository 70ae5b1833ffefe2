// A plug-in as a host would load it: a module that links the shared library
// and uses the event manager. The unload test dlopen()s it, calls
// run_cycle(), and dlclose()s it, which unloads libvexutil with it.
//
// run_cycle() leaves the manager busy on purpose: subscriptions in force (a
// plain one, a list one and a combined one), the dispatcher thread held
// inside a delivery and events queued behind it. The hold ends when the
// module is being unloaded (its destructor function runs before the
// library's), so unloading has to stop a running dispatcher and drop
// whatever is still queued.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/EventMgr.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientProxy;
using vexutil::eventmgr::EventMgr;

namespace {

// Trivially destructible state only: a delivery that is still running while
// the module's statics are torn down must find it intact.
std::atomic<bool> holdReleased{false};
std::atomic<bool> holding{false};
std::atomic<long> delivered{0};

class UnloadEvent : public BaseEvent {
 public:
  explicit UnloadEvent(const std::string& name) : BaseEvent(std::vector<std::string>{name, "UnloadEvent"}) {}
  UnloadEvent* clone() const override { return new UnloadEvent(*this); }
};

// Counts deliveries; the "Hold" event makes it wait until the module unloads.
class CountingClient : public ClientProxy {
 public:
  explicit CountingClient(std::uint64_t id) : id_(id) {}
  void notify(const BaseEvent& event) const override {
    if (event.isOfType("Hold")) {
      holding.store(true);
      while (!holdReleased.load()) {
        std::this_thread::yield();
      }
      return;
    }
    delivered.fetch_add(1);
  }
  std::uint64_t getClassId() const override { return 0x756e6c6f6164ULL; }
  std::uint64_t getInstanceId() const override { return id_; }

 private:
  std::uint64_t id_;
};

__attribute__((destructor)) void releaseHold() { holdReleased.store(true); }

}  // namespace

namespace unload_plugin {

// A subscriber bound by member function, as most hosts subscribe. A class
// with external linkage: its ClientAdapter instantiation's class id is a
// symbol that GCC would make GNU-unique (see CMakeLists.txt).
struct Watcher {
  void onEvent(const BaseEvent& /*event*/) { delivered.fetch_add(1); }
};
Watcher watcher;

}  // namespace unload_plugin

using unload_plugin::watcher;
using unload_plugin::Watcher;

// Returns the number of events left queued behind the held dispatcher, or a
// negative value when the manager did not deliver what it should have.
extern "C" __attribute__((visibility("default"))) int run_cycle(int queuedEvents) {
  EventMgr& manager = *EventMgr::instance();
  const EventMgr::ClientPtr plain(new CountingClient(1));
  const EventMgr::ClientPtr listed(new CountingClient(2));
  const EventMgr::ClientPtr combined(new CountingClient(3));
  manager.subscribe("Plain", plain);
  manager.subscribe(EventMgr::TypeList{"Plain", "Hold"}, listed);
  manager.subscribe(EventMgr::TypeList{"Edit"}, EventMgr::TypeList{"Commit"}, combined);
  manager.subscribe("Commit", &watcher, &Watcher::onEvent);

  // Synchronous round trips: two plain deliveries, the commit, and the edit
  // held back until the commit.
  manager.publish(UnloadEvent("Plain"), true);
  manager.publish(UnloadEvent("Edit"), false);
  manager.publish(UnloadEvent("Commit"), true);
  if (delivered.load() != 4) {
    return -1;
  }

  // Hold the dispatcher, then queue events behind it.
  manager.publish(UnloadEvent("Hold"), false);
  while (!holding.load()) {
    std::this_thread::yield();
  }
  for (int i = 0; i < queuedEvents; ++i) {
    manager.publish(UnloadEvent(i % 2 == 0 ? "Plain" : "Edit"), false);
  }
  return static_cast<int>(manager.getPendingEventCount());
}
