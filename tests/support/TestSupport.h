// SPDX-License-Identifier: MIT
// Helpers shared by the unit tests: waiting without sleeps, recording
// subscribers, test events and access to the default manager.
#ifndef VEXUTIL_TESTS_TESTSUPPORT_H
#define VEXUTIL_TESTS_TESTSUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Corvane/System/ThreadId.h"
#include "DefaultEventMgr.h"
#include "Instance.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/EventMgr.h"

namespace vexutil {
namespace testing_support {

// How long a test waits for something that should happen at once before it
// gives up and fails (instead of hanging). Generous: sanitizer builds on a
// loaded machine are slow.
constexpr std::chrono::seconds kPatience(30);

// Counts up; threads wait until the count reaches a target.
class Counter {
 public:
  // Notifies under the lock: a waiter may destroy the object as soon as it
  // sees the change, so nothing may touch it after the lock is released.
  void add(std::size_t amount = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ += amount;
    changed_.notify_all();
  }
  std::size_t value() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  // Waits until value() >= target; false if kPatience passed first.
  bool waitFor(std::size_t target) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this, target] { return value_ >= target; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::size_t value_ = 0;
};

// A one-shot gate: threads wait until it is opened.
class Gate {
 public:
  void open() { opened_.add(); }
  // Waits until open; false if kPatience passed first.
  bool wait() const { return opened_.waitFor(1); }

 private:
  Counter opened_;
};

// An event with a payload; derived test events add their names in front of
// "TestEvent", "BaseEvent".
class TestEvent : public eventmgr::BaseEvent {
 public:
  explicit TestEvent(int payload = 0) : TestEvent(std::vector<std::string>(), payload) {}
  TestEvent* clone() const override { return new TestEvent(*this); }
  int payload() const { return payload_; }
  // Never destroyed: the dispatcher may still route by it while the process exits.
  static const std::string& typeName() {
    static const std::string* const name = new std::string("TestEvent");
    return *name;
  }

 protected:
  TestEvent(std::vector<std::string> derivedNames, int payload)
      : BaseEvent(withOwnName(std::move(derivedNames))), payload_(payload) {}

 private:
  static std::vector<std::string> withOwnName(std::vector<std::string> names) {
    names.push_back(typeName());
    return names;
  }

  int payload_;
};

// A TestEvent whose most derived type name is chosen by the test, e.g.
// NamedEvent("Edit", 1) with the type list "Edit", "TestEvent", "BaseEvent".
class NamedEvent : public TestEvent {
 public:
  NamedEvent(const std::string& type, int payload) : TestEvent(std::vector<std::string>{type}, payload) {}
  NamedEvent* clone() const override { return new NamedEvent(*this); }
};

// One delivery as a Recorder saw it.
struct Delivery {
  std::string firstType;  // The event's most derived type name.
  int payload;            // TestEvent payload, or -1.
  Corvane::System::ThreadId thread;
  const eventmgr::BaseEvent* address;
};

// A subscriber that records what it receives; safe to read from any thread.
class Recorder {
 public:
  void onBase(const eventmgr::BaseEvent& event) {
    const auto* test = dynamic_cast<const TestEvent*>(&event);
    record(event, test != nullptr ? test->payload() : -1);
  }
  void onTest(const TestEvent& event) { record(event, event.payload()); }
  std::vector<Delivery> deliveries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }
  std::vector<int> payloads() const {
    return collect<int>([](const Delivery& delivery) { return delivery.payload; });
  }
  // Each delivery as "<first type name><payload>", e.g. "Edit1".
  std::vector<std::string> labels() const {
    return collect<std::string>(
        [](const Delivery& delivery) { return delivery.firstType + std::to_string(delivery.payload); });
  }
  std::size_t count() const { return received_.value(); }
  bool waitFor(std::size_t target) const { return received_.waitFor(target); }
  // Runs inside every handler call, before it is recorded.
  void setAction(std::function<void(const eventmgr::BaseEvent&)> action) {
    std::lock_guard<std::mutex> lock(mutex_);
    action_ = std::move(action);
  }

 private:
  void record(const eventmgr::BaseEvent& event, int payload) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::function<void(const eventmgr::BaseEvent&)> action = action_;
    lock.unlock();  // The action may take its time, or read this recorder.
    if (action) {
      action(event);
    }
    lock.lock();
    deliveries_.push_back(Delivery{event.getTypes().front(), payload, Corvane::System::ThreadId::self(), &event});
    lock.unlock();
    received_.add();
  }
  template <typename T, typename Field>
  std::vector<T> collect(Field field) const {
    std::vector<T> result;
    for (const Delivery& delivery : deliveries()) {
      result.push_back(field(delivery));
    }
    return result;
  }

  mutable std::mutex mutex_;
  std::vector<Delivery> deliveries_;
  std::function<void(const eventmgr::BaseEvent&)> action_;
  Counter received_;
};

// The default manager behind EventMgr::instance(), created if needed.
inline eventmgr::DefaultEventMgr& defaultManager() {
  return dynamic_cast<eventmgr::DefaultEventMgr&>(*eventmgr::EventMgr::instance());
}

// Lets the manager's owner go (as unloading the library does), which
// destroys it.
inline void shutDownManager() { eventmgr::detail::releaseOwner(); }

// After shutDownManager(): the next instance() creates a fresh manager.
inline void restartManager() { eventmgr::detail::rearmInstanceForTesting(); }

// Publishes a synchronous no-op event and returns when it has been
// delivered: every event queued before it has been delivered too.
inline void drainQueue() { eventmgr::EventMgr::instance()->publish(eventmgr::BaseEvent(), true); }

}  // namespace testing_support
}  // namespace vexutil

#endif  // VEXUTIL_TESTS_TESTSUPPORT_H
