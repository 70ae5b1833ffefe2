// A host program that leaves the event manager busy when it exits. Run by
// ctest through RunExitProgram.cmake, which expects exit code 0, the line
// that the mode prints before main returns, and no sanitizer report; the
// test's TIMEOUT catches an exit that hangs.
//
//   reliability_exit_program idle     a live, idle manager
//   reliability_exit_program queued   subscriptions (plain, list, combined
//                                     with stored events) and events queued
//                                     behind a dispatcher held in a delivery
//   reliability_exit_program waiting  as queued, plus threads blocked in
//                                     subscribe, list subscribe, combined
//                                     subscribe and synchronous publish
//   reliability_exit_program handoff  the dispatcher blocked in a hand-off
//                                     to the main thread that nobody serves
//   reliability_exit_program busy     the dispatcher working through a long
//                                     queue
//
// Whatever a subscriber touches has a trivial destructor, so deliveries that
// run while the process exits never see a destroyed object.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::ToDoAdapter;

namespace {

constexpr int kQueued = 5000;
constexpr int kWaiters = 4;

class ExitEvent : public BaseEvent {
 public:
  explicit ExitEvent(const std::string& name) : BaseEvent(std::vector<std::string>{name, "ExitEvent"}) {}
  ExitEvent* clone() const override { return new ExitEvent(*this); }
  static const std::string& typeName() {
    static const std::string name("ExitEvent");
    return name;
  }
};

std::atomic<bool> holdReleased{false};
std::atomic<bool> holding{false};
std::atomic<int> blockedWaiters{0};

struct Subscriber {
  std::atomic<long> received{0};
  void onEvent(const ExitEvent& /*event*/) { received.fetch_add(1); }
  void onHold(const ExitEvent& /*event*/) {
    holding.store(true);
    while (!holdReleased.load()) {
      std::this_thread::yield();
    }
  }
  void onHandOff(const ExitEvent& /*event*/) {
    holding.store(true);
    // Nobody pumps: the dispatcher stays here until the manager shuts down.
    ToDoAdapter::runOnceOnMainThreadImpl([] { std::puts("hand-off ran"); });
  }
};

Subscriber plain;
Subscriber listed;
Subscriber combined;
Subscriber holder;
Subscriber lateSubscribers[kWaiters];

// Runs before the library's own exit-time teardown (it was registered
// later), so the manager is shut down while it delivers again.
void releaseHold() { holdReleased.store(true); }

void waitUntil(const std::atomic<bool>& flag) {
  while (!flag.load()) {
    std::this_thread::yield();
  }
}

void subscribeAll(EventMgr& manager) {
  manager.subscribe("Plain", &plain, &Subscriber::onEvent);
  manager.subscribe(EventMgr::TypeList{"Plain", "Other"},
                    EventMgr::ClientPtr(new ClientAdapter<Subscriber, ExitEvent>(&listed, &Subscriber::onEvent)));
  manager.subscribe(EventMgr::TypeList{"Edit"}, EventMgr::TypeList{"Commit"},
                    EventMgr::ClientPtr(new ClientAdapter<Subscriber, ExitEvent>(&combined, &Subscriber::onEvent)));
  manager.publish(ExitEvent("Edit"), true);  // Stored by the combined subscription.
}

void holdDispatcherAndQueue(EventMgr& manager) {
  std::atexit(releaseHold);
  manager.subscribe("Hold", &holder, &Subscriber::onHold);
  manager.publish(ExitEvent("Hold"), false);
  waitUntil(holding);
  for (int i = 0; i < kQueued; ++i) {
    manager.publish(ExitEvent(i % 2 == 0 ? "Plain" : "Edit"), false);
  }
}

// Threads that wait for the held dispatcher when main returns. They are
// released by the shutdown and end without touching anything else.
void startWaiters(EventMgr& manager) {
  for (int i = 0; i < kWaiters; ++i) {
    std::thread([&manager, i] {
      blockedWaiters.fetch_add(1);
      Subscriber* const late = &lateSubscribers[i];
      const EventMgr::ClientPtr client(new ClientAdapter<Subscriber, ExitEvent>(late, &Subscriber::onEvent));
      switch (i) {
        case 0:
          manager.subscribe("Late", late, &Subscriber::onEvent);
          break;
        case 1:
          manager.subscribe(EventMgr::TypeList{"Late", "Later"}, client);
          break;
        case 2:
          manager.subscribe(EventMgr::TypeList{"LateEdit"}, EventMgr::TypeList{"LateCommit"}, client);
          break;
        default:
          manager.publish(ExitEvent("Plain"), true);
          break;
      }
    }).detach();
  }
  // Each waiter's request is queued behind the events.
  while (manager.getPendingEventCount() < static_cast<unsigned>(kQueued + kWaiters)) {
    std::this_thread::yield();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  EventMgr& manager = *EventMgr::instance();
  if (mode == "idle") {
    manager.publish(ExitEvent("Plain"), true);  // The dispatcher has run.
    std::printf("idle manager at exit\n");
    return 0;
  }
  if (mode == "queued" || mode == "waiting") {
    subscribeAll(manager);
    holdDispatcherAndQueue(manager);
    if (mode == "waiting") {
      startWaiters(manager);
    }
    std::printf("%s: subscriptions=%u pending=%u\n", mode.c_str(), manager.getSubscriptionCount(),
                manager.getPendingEventCount());
    return 0;
  }
  if (mode == "handoff") {
    subscribeAll(manager);
    manager.subscribe("HandOff", &holder, &Subscriber::onHandOff);
    manager.publish(ExitEvent("HandOff"), false);
    waitUntil(holding);
    for (int i = 0; i < kQueued; ++i) {
      manager.publish(ExitEvent("Plain"), false);
    }
    std::printf("handoff: pending=%u\n", manager.getPendingEventCount());
    return 0;
  }
  if (mode == "busy") {
    subscribeAll(manager);
    for (int i = 0; i < 20 * kQueued; ++i) {
      manager.publish(ExitEvent(i % 2 == 0 ? "Plain" : "Edit"), false);
    }
    std::printf("busy: published=%d\n", 20 * kQueued);
    return 0;
  }
  std::fprintf(stderr, "usage: %s idle|queued|waiting|handoff|busy\n", argv[0]);
  return 2;
}
