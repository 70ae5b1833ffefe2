// The action event carries work to the dispatcher and a completion record
// that every copy shares.
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include <boost/function.hpp>
#include <boost/thread/exceptions.hpp>

#include "ActionContainerEvent.h"
#include "TestSupport.h"

using vexutil::eventmgr::ActionContainerEvent;
using Clock = ActionContainerEvent::Clock;

// The type list is exactly "ActionContainerEvent", "BaseEvent".
TEST(ActionContainerEvent, TypeListHasTwoNamesOwnFirst) {
  const ActionContainerEvent event{boost::function0<void>()};
  EXPECT_EQ(event.getTypes(), (std::vector<std::string>{"ActionContainerEvent", "BaseEvent"}));
}

// execute runs the action and then marks the event done.
TEST(ActionContainerEvent, ExecuteRunsThenMarksDone) {
  int runs = 0;
  const ActionContainerEvent event{boost::function0<void>([&runs] { ++runs; })};
  event.execute();
  EXPECT_EQ(runs, 1);
  boost::mutex::scoped_lock lock(event.getMutex());
  EXPECT_TRUE(event.waitDone(lock, Clock::now() - boost::chrono::seconds(1)));
}

// An empty or failing action throws out of execute and leaves the event not done.
TEST(ActionContainerEvent, FailedActionIsNotMarkedDone) {
  const ActionContainerEvent empty{boost::function0<void>()};
  EXPECT_THROW(empty.execute(), boost::bad_function_call);
  const ActionContainerEvent failing{boost::function0<void>([] { throw 5; })};
  EXPECT_THROW(failing.execute(), int);
  for (const ActionContainerEvent* event : {&empty, &failing}) {
    boost::mutex::scoped_lock lock(event->getMutex());
    EXPECT_FALSE(event->waitDone(lock, Clock::now() + boost::chrono::milliseconds(1)));
  }
}

// Marking twice is harmless; marking a clone completes the original and back.
TEST(ActionContainerEvent, CopiesShareCompletion) {
  const ActionContainerEvent original{boost::function0<void>()};
  std::unique_ptr<ActionContainerEvent> clone(original.clone());
  const ActionContainerEvent copy(original);
  EXPECT_EQ(clone->syncData, original.syncData);
  clone->markDone();
  clone->markDone();
  for (const ActionContainerEvent* event : std::vector<const ActionContainerEvent*>{&original, &copy, clone.get()}) {
    boost::mutex::scoped_lock lock(event->getMutex());
    EXPECT_TRUE(event->waitDone(lock, Clock::now()));
  }
  const ActionContainerEvent other{boost::function0<void>()};
  std::unique_ptr<ActionContainerEvent> otherClone(other.clone());
  other.markDone();
  boost::mutex::scoped_lock lock(otherClone->getMutex());
  EXPECT_TRUE(otherClone->waitDone(lock, Clock::now()));
}

// Waiting without holding the mutex is refused unless the event is already done.
TEST(ActionContainerEvent, WaitWithoutTheLockThrowsLockError) {
  const ActionContainerEvent event{boost::function0<void>()};
  boost::mutex::scoped_lock notHeld(event.getMutex(), boost::defer_lock);
  EXPECT_THROW(event.waitDone(notHeld, Clock::now()), boost::lock_error);
  event.markDone();
  EXPECT_TRUE(event.waitDone(notHeld, Clock::now()));
}

// A waiter blocked in waitDone wakes when another thread marks the event done.
TEST(ActionContainerEvent, MarkDoneWakesWaiter) {
  const ActionContainerEvent event{boost::function0<void>()};
  vexutil::testing_support::Gate waiting;
  bool done = false;
  {
    boost::mutex::scoped_lock lock(event.getMutex());
    std::thread marker([&] {
      ASSERT_TRUE(waiting.wait());
      event.markDone();  // Blocks until the waiter sits inside its timed wait.
    });
    waiting.open();
    const auto deadline = Clock::now() + boost::chrono::seconds(30);
    while (!done && Clock::now() < deadline) {
      done = event.waitDone(lock, Clock::now() + boost::chrono::milliseconds(100));
    }
    lock.unlock();
    marker.join();
  }
  EXPECT_TRUE(done);
}
