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
#include <vector>

#include "Corvane/System/ThreadId.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/EventMgr.h"

namespace vexutil {
namespace eventmgr {
class DefaultEventMgr;
}  // namespace eventmgr

namespace testing_support {

// How long a test waits for something that should happen at once before it
// gives up and fails (instead of hanging). Generous: sanitizer builds on a
// loaded machine are slow.
constexpr std::chrono::seconds kPatience(30);

// A one-shot gate: threads wait until it is opened.
class Gate {
 public:
  void open();
  bool isOpen() const;
  // Waits until open; false if kPatience passed first.
  bool wait() const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable opened_;
  bool open_ = false;
};

// Counts up; threads wait until the count reaches a target.
class Counter {
 public:
  void add(std::size_t amount = 1);
  std::size_t value() const;
  // Waits until value() >= target; false if kPatience passed first.
  bool waitFor(std::size_t target) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::size_t value_ = 0;
};

// An event with a payload and a configurable type chain.
class TestEvent : public eventmgr::BaseEvent {
 public:
  explicit TestEvent(int payload = 0);
  TestEvent(const TestEvent& other);
  TestEvent* clone() const override;
  int payload() const { return payload_; }
  static const std::string& typeName();

 protected:
  TestEvent(std::vector<std::string> derivedNames, int payload);

 private:
  int payload_;
};

// A TestEvent one level further down: "DerivedTestEvent", "TestEvent", "BaseEvent".
class DerivedTestEvent : public TestEvent {
 public:
  explicit DerivedTestEvent(int payload = 0);
  DerivedTestEvent(const DerivedTestEvent& other);
  DerivedTestEvent* clone() const override;
  static const std::string& typeName();
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
  void onBase(const eventmgr::BaseEvent& event);
  void onTest(const TestEvent& event);
  std::vector<Delivery> deliveries() const;
  std::vector<int> payloads() const;
  std::size_t count() const { return received_.value(); }
  bool waitFor(std::size_t target) const { return received_.waitFor(target); }
  // Runs inside every handler call, before it is recorded.
  void setAction(std::function<void(const eventmgr::BaseEvent&)> action);

 private:
  void record(const eventmgr::BaseEvent& event, int payload);

  mutable std::mutex mutex_;
  std::vector<Delivery> deliveries_;
  std::function<void(const eventmgr::BaseEvent&)> action_;
  Counter received_;
};

// The default manager behind EventMgr::instance(), created if needed.
eventmgr::DefaultEventMgr& defaultManager();

// Lets the manager's owner go (as unloading the library does), which
// destroys it.
void shutDownManager();

// After shutDownManager(): the next instance() creates a fresh manager.
void restartManager();

// Publishes a synchronous no-op event and returns when it has been
// delivered: every event queued before it has been delivered too.
void drainQueue();

// The identity of the dispatcher thread, learnt from inside a delivery.
Corvane::System::ThreadId dispatcherThreadId();

}  // namespace testing_support
}  // namespace vexutil

#endif  // VEXUTIL_TESTS_TESTSUPPORT_H
