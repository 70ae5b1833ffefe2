// The dispatcher thread: start, stop, restart after a failure, queue order,
// and the manager's shutdown.
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "DefaultEventMgr.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/ToDoAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::DefaultEventMgr;
using vexutil::eventmgr::EventDispatcher;
using vexutil::eventmgr::EventMgr;
using vexutil::inputreqevt::InputRequestEvent;
using namespace vexutil::testing_support;

namespace {

// Waits, yielding, until `condition` holds; false after kPatience.
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

}  // namespace

// A dispatcher that does not run ignores stop and keeps its stop flag clear.
TEST(EventDispatcher, StopWhenNotRunningDoesNothing) {
  EventDispatcher dispatcher;
  dispatcher.stop(nullptr);
  EXPECT_FALSE(dispatcher.isStopRequested());
  EXPECT_FALSE(dispatcher.isRunning());
  EXPECT_FALSE(dispatcher.getThreadId().isValid());
}

// After start the thread is running and identifiable; a second start changes nothing.
TEST(EventDispatcher, StartedThreadIsIdentifiable) {
  DefaultEventMgr& manager = defaultManager();
  const auto dispatcher = manager.getDispatcher();
  ASSERT_TRUE(dispatcher->isRunning());
  const Corvane::System::ThreadId id = dispatcher->getThreadId();
  EXPECT_TRUE(id.isValid());
  dispatcher->start(&manager);
  EXPECT_EQ(dispatcher->getThreadId(), id);
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(), true);
  EXPECT_EQ(recorder.deliveries().front().thread, id);
}

// Events queued at the back arrive in order; an unSubscribe from another thread overtakes them.
TEST(EventDispatcher, UnsubscribeOvertakesQueuedEvents) {
  EventMgr& manager = *EventMgr::instance();
  Gate holding;
  Gate release;
  Recorder blocker;
  blocker.setAction([&](const BaseEvent&) {
    holding.open();
    EXPECT_TRUE(release.wait());
  });
  Recorder overtaken;
  Recorder ordered;
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  manager.subscribe("TestEvent", &overtaken, &Recorder::onTest);
  manager.subscribe("DerivedTestEvent", &ordered, &Recorder::onTest);

  manager.publish(InputRequestEvent(), false);  // Holds the dispatcher.
  ASSERT_TRUE(holding.wait());
  for (int i = 0; i < 3; ++i) {
    manager.publish(DerivedTestEvent(i), false);
  }
  std::thread unsubscriber([&] { manager.unSubscribe("TestEvent", &overtaken, &Recorder::onTest); });
  // The unsubscribe request is queued (at the front) once four events wait.
  ASSERT_TRUE(eventually([&] { return manager.getPendingEventCount() == 4; }));
  release.open();
  unsubscriber.join();
  drainQueue();
  EXPECT_EQ(overtaken.count(), 0U);
  EXPECT_EQ(ordered.payloads(), (std::vector<int>{0, 1, 2}));
}

namespace {
// An event whose description cannot be written: a failure report about it
// fails, which ends the dispatcher thread's loop.
struct UndescribableEvent : TestEvent {
  UndescribableEvent() = default;
  UndescribableEvent* clone() const override { return new UndescribableEvent(*this); }
  std::ostream& writeDescription(std::ostream&) const override { throw std::runtime_error("no description"); }
};
struct Thrower {
  void onTest(const TestEvent&) { throw 1; }
};
}  // namespace

// A dispatcher thread ended by an exception is replaced, with a new id, at the next publish.
TEST(EventDispatcher, ThreadEndedByExceptionIsReplacedAtNextPublish) {
  DefaultEventMgr& manager = defaultManager();
  const auto dispatcher = manager.getDispatcher();
  const Corvane::System::ThreadId first = dispatcher->getThreadId();
  Thrower thrower;
  manager.subscribe("TestEvent", &thrower, &Thrower::onTest);
  manager.publish(UndescribableEvent(), false);
  ASSERT_TRUE(eventually([&] { return !dispatcher->isRunning(); }));
  EXPECT_EQ(manager.getPendingEventCount(), 0U);
  // Nothing is delivered while no thread runs; the next publish restarts it.
  Recorder recorder;
  manager.publish(TestEvent(1), false);
  EXPECT_TRUE(dispatcher->isRunning());
  EXPECT_NE(dispatcher->getThreadId(), first);
  manager.unSubscribe("TestEvent", &thrower, &Thrower::onTest);
  manager.subscribe("InputRequestEvent", &recorder, &Recorder::onBase);
  manager.publish(InputRequestEvent(), true);
  ASSERT_EQ(recorder.count(), 1U);
  EXPECT_EQ(recorder.deliveries().front().thread, dispatcher->getThreadId());
}

// Shutdown drops queued events undelivered and releases waiting requesters without running them.
TEST(ManagerShutdown, DropsQueuedEventsAndReleasesRequesters) {
  EventMgr& manager = *EventMgr::instance();
  Recorder blocker;
  Recorder recorder;
  // Holds the dispatcher until the shutdown has taken the queue and asked
  // the dispatcher to stop, so that nothing queued can be delivered.
  Gate holding;
  blocker.setAction([&](const BaseEvent&) {
    holding.open();
    EXPECT_TRUE(eventually([] { return EventDispatcher::current()->isStopRequested(); }));
  });
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(InputRequestEvent(), false);
  ASSERT_TRUE(holding.wait());  // From here on the queue only grows.
  manager.publish(TestEvent(1), false);
  std::thread synchronousPublisher([&] { manager.publish(TestEvent(2), true); });
  Recorder neverSubscribed;
  std::thread subscriber([&] { manager.subscribe("X", &neverSubscribed, &Recorder::onBase); });
  ASSERT_TRUE(eventually([&] { return manager.getPendingEventCount() == 3; }));

  shutDownManager();
  synchronousPublisher.join();  // Released although its delivery never ran.
  subscriber.join();
  EXPECT_EQ(blocker.count(), 1U);
  EXPECT_EQ(recorder.count(), 0U);
  EXPECT_FALSE(vexutil::eventmgr::detail::isDefaultManagerCreated());
}

// After shutdown instance() is a no-op manager for good; no second default manager appears.
TEST(ManagerShutdown, InstanceBecomesNoOpManager) {
  EventMgr* before = EventMgr::instance();
  shutDownManager();
  EventMgr* after = EventMgr::instance();
  EXPECT_NE(after, before);
  EXPECT_EQ(dynamic_cast<DefaultEventMgr*>(after), nullptr);
  Recorder recorder;
  after->subscribe("TestEvent", &recorder, &Recorder::onTest);
  after->publish(TestEvent(), true);
  after->publish(TestEvent(), false);
  after->unSubscribe("TestEvent", &recorder, &Recorder::onTest);
  after->subscribe(EventMgr::TypeList{"A"}, EventMgr::TypeList{"B"}, EventMgr::ClientPtr());
  EXPECT_EQ(after->getSubscriptionCount(), 0U);
  EXPECT_EQ(after->getPendingEventCount(), 0U);
  EXPECT_FALSE(after->isDispatchOrMainThread());
  EXPECT_EQ(recorder.count(), 0U);
  vexutil::eventmgr::ToDoAdapter::runOnceOnMainThreadImpl([] {});
  EXPECT_EQ(EventMgr::instance(), after);
}

// Shutdown does not hang on a dispatcher blocked in a hand-off that nobody serves.
TEST(ManagerShutdown, DoesNotHangOnAnUnservedHandOff) {
  EventMgr& manager = *EventMgr::instance();
  Recorder handsOff;
  bool workRan = false;
  handsOff.setAction([&](const BaseEvent&) {
    vexutil::eventmgr::ToDoAdapter::runOnceOnMainThreadImpl([&workRan] { workRan = true; });
  });
  manager.subscribe("TestEvent", &handsOff, &Recorder::onTest);
  manager.publish(TestEvent(), false);
  // The hand-off is stored once the slot holds a function.
  ASSERT_TRUE(eventually([] {
    boost::recursive_mutex::scoped_lock lock(vexutil::eventmgr::ToDoAdapter::toDoMutex_);
    return !vexutil::eventmgr::ToDoAdapter::toDoFunc_.empty();
  }));
  shutDownManager();
  EXPECT_EQ(handsOff.count(), 1U);
  // The withdrawn record does nothing if somebody pumps it later.
  boost::function0<void> leftover;
  {
    boost::recursive_mutex::scoped_lock lock(vexutil::eventmgr::ToDoAdapter::toDoMutex_);
    leftover.swap(vexutil::eventmgr::ToDoAdapter::toDoFunc_);
  }
  if (!leftover.empty()) {
    leftover();
  }
  EXPECT_FALSE(workRan);
}

// The last owner letting go on the dispatcher thread itself destroys the manager safely.
TEST(ManagerShutdown, ReleaseFromInsideASubscriber) {
  EventMgr& manager = *EventMgr::instance();
  Recorder releaser;
  Recorder later;
  releaser.setAction([](const BaseEvent&) { shutDownManager(); });
  manager.subscribe("TestEvent", &releaser, &Recorder::onTest);
  manager.subscribe("BaseEvent", &later, &Recorder::onTest);
  manager.publish(TestEvent(), false);
  ASSERT_TRUE(later.waitFor(1));  // The delivery in progress went on.
  ASSERT_TRUE(eventually([] { return !vexutil::eventmgr::detail::isDefaultManagerCreated(); }));
  EXPECT_EQ(dynamic_cast<DefaultEventMgr*>(EventMgr::instance()), nullptr);
}

// Tests can start afresh after a shutdown; the new manager has a new dispatcher.
TEST(ManagerShutdown, RestartedManagerWorks) {
  const Corvane::System::ThreadId first = dispatcherThreadId();
  shutDownManager();
  restartManager();
  Recorder recorder;
  EventMgr::instance()->subscribe("TestEvent", &recorder, &Recorder::onTest);
  EventMgr::instance()->publish(TestEvent(5), true);
  EXPECT_EQ(recorder.payloads(), std::vector<int>{5});
  EXPECT_NE(dispatcherThreadId(), first);
}
