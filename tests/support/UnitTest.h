// SPDX-License-Identifier: MIT
// What the unit tests share on top of TestSupport.h: the headers and names
// they use unqualified, and helpers for holding the dispatcher and capturing
// output.
#ifndef VEXUTIL_TESTS_UNITTEST_H
#define VEXUTIL_TESTS_UNITTEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

#include "TestSupport.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/eventmgr/ToDoAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"

using Corvane::System::ThreadId;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::DefaultEventMgr;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::NotifyDeadlockException;
using vexutil::eventmgr::ToDoAdapter;
using vexutil::inputreqevt::InputRequestEvent;
using namespace vexutil::testing_support;
using Names = std::vector<std::string>;

namespace unit {

// Waits, yielding, until `condition` holds; false after kPatience. For
// conditions that no latch can signal, such as a queue length.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// As eventually(), but gives up after `limit`. For something that a fault
// would make happen and a correct library never does: waiting for it a
// bounded while gives the fault its chance to show.
template <typename Condition>
bool eventuallyWithin(std::chrono::milliseconds limit, Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// What `body` writes to standard output.
template <typename Body>
std::string printedBy(Body body) {
  ::testing::internal::CaptureStdout();
  body();
  return ::testing::internal::GetCapturedStdout();
}

// A recorder's TestEvent handler as a subscriber.
inline EventMgr::ClientPtr clientFor(Recorder& recorder) {
  return EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&recorder, &Recorder::onTest));
}

// True while the main-thread hand-off slot holds a function.
inline bool handOffPending() {
  boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
  return !ToDoAdapter::toDoFunc_.empty();
}

// Keeps the dispatcher thread inside one delivery (of a "Hold" event, which
// no TestEvent subscriber sees) until release(), so that whatever is
// published meanwhile stays queued. The constructor returns once the
// dispatcher is held.
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

}  // namespace unit

using namespace unit;

#endif  // VEXUTIL_TESTS_UNITTEST_H
