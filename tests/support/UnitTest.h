// SPDX-License-Identifier: MIT
// What the tests share: the headers and names they use unqualified, waiting
// without sleeps, recording subscribers, test events, holding the dispatcher,
// capturing output and running work in a forked child.
#ifndef VEXUTIL_TESTS_UNITTEST_H
#define VEXUTIL_TESTS_UNITTEST_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Corvane/System/ThreadId.h"
#include "DefaultEventMgr.h"
#include "Instance.h"
#include "vexutil/vexutil.h"

using Corvane::System::ThreadId;
using namespace vexutil::contextmgr;  // NOLINT(google-build-using-namespace): the library under test.
using namespace vexutil::eventmgr;    // NOLINT(google-build-using-namespace)
using vexutil::inputreqevt::InputRequestEvent;
using Names = std::vector<std::string>;

namespace unit {

// How long a test waits for something that should happen at once before it gives up and fails (instead of
// hanging). Generous: sanitizer builds on a loaded machine are slow.
constexpr std::chrono::seconds kPatience(30);

// Counts up; threads wait until the count reaches a target.
class Counter {
 public:
  // Notifies under the lock: a waiter may destroy the object as soon as it sees the change.
  void add(std::size_t amount = 1) {
    const std::lock_guard<std::mutex> lock(mutex_);
    value_ += amount;
    changed_.notify_all();
  }
  std::size_t value() const {
    const std::lock_guard<std::mutex> lock(mutex_);
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

// A one-shot gate: threads wait (at most kPatience) until it is opened.
struct Gate : private Counter {
  void open() { add(); }
  bool wait() const { return waitFor(1); }
};

// Waits, yielding, until `condition` holds; false after `limit`. For conditions no latch can signal (a queue
// length), and, with a short limit, for something only a fault would make happen: waiting a bounded while gives
// the fault its chance to show.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// An event with a payload; derived test events add their names in front of "TestEvent", "BaseEvent".
class TestEvent : public BaseEvent {
 public:
  explicit TestEvent(int payload = 0) : TestEvent(Names(), payload) {}
  TestEvent* clone() const override { return new TestEvent(*this); }
  int payload() const { return payload_; }
  // Never destroyed: the dispatcher may still route by it while the process exits.
  static const std::string& typeName() {
    static const std::string* const name = new std::string("TestEvent");
    return *name;
  }

 protected:
  // The derived names, then this class's own.
  TestEvent(Names names, int payload) : BaseEvent((names.push_back(typeName()), std::move(names))), payload_(payload) {}

 private:
  int payload_;
};

// A TestEvent whose most derived type names are chosen by the test: NamedEvent("Edit", 1) has the type list
// "Edit", "TestEvent", "BaseEvent".
class NamedEvent : public TestEvent {
 public:
  NamedEvent(const std::string& type, int payload) : TestEvent(Names{type}, payload) {}
  NamedEvent(Names types, int payload) : TestEvent(std::move(types), payload) {}
  NamedEvent* clone() const override { return new NamedEvent(*this); }
};

// One delivery as a Recorder saw it.
struct Delivery {
  std::string firstType;  // The event's most derived type name.
  int payload;            // TestEvent payload, or -1.
  ThreadId thread;
  const BaseEvent* address;
};

// A subscriber that records what it receives; safe to read from any thread.
class Recorder {
 public:
  void onBase(const BaseEvent& event) {
    const auto* test = dynamic_cast<const TestEvent*>(&event);
    record(event, test != nullptr ? test->payload() : -1);
  }
  void onTest(const TestEvent& event) { record(event, event.payload()); }
  std::vector<Delivery> deliveries() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }
  // What `field` makes of each delivery.
  template <typename Field>
  auto collect(Field field) const {
    std::vector<decltype(field(Delivery{}))> result;
    for (const Delivery& delivery : deliveries()) {
      result.push_back(field(delivery));
    }
    return result;
  }
  std::vector<int> payloads() const {
    return collect([](const Delivery& delivery) { return delivery.payload; });
  }
  // Each delivery as "<first type name><payload>", e.g. "Edit1".
  Names labels() const {
    return collect([](const Delivery& delivery) { return delivery.firstType + std::to_string(delivery.payload); });
  }
  std::size_t count() const { return received_.value(); }
  bool waitFor(std::size_t target) const { return received_.waitFor(target); }
  // Runs inside every handler call, before it is recorded.
  void setAction(std::function<void(const BaseEvent&)> action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    action_ = std::move(action);
  }

 private:
  void record(const BaseEvent& event, int payload) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::function<void(const BaseEvent&)> action = action_;
    lock.unlock();  // The action may take its time, or read this recorder.
    if (action) {
      action(event);
    }
    lock.lock();
    deliveries_.push_back(Delivery{event.getTypes().front(), payload, ThreadId::self(), &event});
    lock.unlock();
    received_.add();
  }

  mutable std::mutex mutex_;
  std::vector<Delivery> deliveries_;
  std::function<void(const BaseEvent&)> action_;
  Counter received_;
};

// A recorder's TestEvent handler as a subscriber.
inline EventMgr::ClientPtr clientFor(Recorder& recorder) {
  return EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&recorder, &Recorder::onTest));
}

// The default manager behind EventMgr::instance(), created if needed.
inline DefaultEventMgr& defaultManager() { return dynamic_cast<DefaultEventMgr&>(*EventMgr::instance()); }

// Lets the manager's owner go (as unloading the library does), which destroys it.
inline void shutDownManager() { vexutil::eventmgr::detail::releaseOwner(); }

// Publishes a synchronous no-op event and returns when it has been delivered: every event queued before it has
// been delivered too.
inline void drainQueue() { EventMgr::instance()->publish(BaseEvent(), true); }

// What `body` writes to standard output.
template <typename Body>
std::string printedBy(Body body) {
  ::testing::internal::CaptureStdout();
  body();
  return ::testing::internal::GetCapturedStdout();
}

// True while the main-thread hand-off slot holds a function.
inline bool handOffPending() {
  boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
  return !ToDoAdapter::toDoFunc_.empty();
}

// Keeps the dispatcher thread inside one delivery (of a "Hold" event, which no TestEvent subscriber sees) until
// release(), so that whatever is published meanwhile stays queued. The constructor returns once it holds.
class DispatcherHold {
 public:
  DispatcherHold() {
    EventMgr::instance()->subscribe("Hold", this, &DispatcherHold::hold);
    EventMgr::instance()->publish(HoldEvent(), false);
    EXPECT_TRUE(holding_.wait());
  }
  // Lets the delivery end and waits until it no longer uses this object.
  ~DispatcherHold() {
    release();
    EXPECT_TRUE(done_.wait());
    EventMgr::instance()->unSubscribe("Hold", this, &DispatcherHold::hold);
  }
  void release() { released_.open(); }

 private:
  struct HoldEvent : BaseEvent {
    HoldEvent() : BaseEvent(Names{"Hold"}) {}
    HoldEvent* clone() const override { return new HoldEvent(*this); }
  };
  void hold(const BaseEvent& /*event*/) {
    holding_.open();
    EXPECT_TRUE(released_.wait());
    done_.open();  // The last use of this object.
  }
  Gate holding_;
  Gate released_;
  Gate done_;
};

// Runs `body` (returning an int) in a forked child, which exits through exit() (static destructors and the
// leak check included) with what `body` returned, or 1 if it failed a check. Returns that status, or -1 if the
// child crashed or did not end within `limit` (an alarm set in the child then ends it). A child of a process that
// never made a manager makes its own on first use.
template <typename Body>
int inChild(Body body, std::chrono::milliseconds limit = kPatience) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGALRM, SIG_DFL);  // NOLINT(cert-err33-c): the default action, which ends the process.
    alarm(static_cast<unsigned>(std::chrono::ceil<std::chrono::seconds>(limit).count()));
    const int status = body();
    std::fflush(stdout);
    std::exit(::testing::Test::HasFailure() ? 1 : status);  // NOLINT(concurrency-mt-unsafe): one thread left.
  }
  int status = -1;                                              // Not an exit status, should waitpid fail.
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {  // A signal handled meanwhile: wait on.
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace unit

using namespace unit;

#endif  // VEXUTIL_TESTS_UNITTEST_H
