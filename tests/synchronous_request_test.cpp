// Requests that wait for the dispatcher: printing a report while they wait,
// and refused on the dispatcher thread itself.
#include "UnitTest.h"

// A failure reported while a thread waits in a synchronous publish is printed by that thread's polls.
// Forced order: the failing event and the request queue behind a held dispatcher, the hold ends, the
// failure is reported, and the request's own delivery waits until a poll has taken the report.
TEST(SynchronousRequests, WaitingThreadPrintsPendingReport) {
  EventMgr& manager = *EventMgr::instance();
  Recorder thrower;
  Recorder blocker;
  thrower.setAction([](const BaseEvent&) { throw 3; });
  blocker.setAction(
      [](const BaseEvent&) { EXPECT_TRUE(eventually([] { return !defaultManager().hasPendingReport(); })); });
  manager.subscribe("TestEvent", &thrower, &Recorder::onTest);
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  std::string printed;
  {
    DispatcherHold hold;
    manager.publish(TestEvent(), false);
    std::thread releaser([&] {
      EXPECT_TRUE(eventually([&] { return manager.getPendingEventCount() == 2; }));
      hold.release();
    });
    printed = printedBy([&] { manager.publish(InputRequestEvent(), true); });
    releaser.join();
  }
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos) << printed;
  EXPECT_EQ(blocker.count(), 1U);
}

// On the dispatcher thread each request that waits for it throws NotifyDeadlockException and changes nothing;
// an asynchronous publish and a plain unSubscribe work there.
TEST(SynchronousRequests, WaitingRequestsInsideNotifyAreRefused) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  Recorder other;
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, clientFor(other));
  manager.subscribe("Other", &other, &Recorder::onTest);
  recorder.setAction([&](const BaseEvent& event) {
    if (dynamic_cast<const TestEvent&>(event).payload() != 1) {
      return;
    }
    EXPECT_THROW(manager.subscribe("X", &other, &Recorder::onBase), NotifyDeadlockException);
    EXPECT_THROW(manager.subscribe(Names{"X"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.subscribe(Names{"A"}, Names{"B"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.unSubscribe(Names{"Edit"}, Names{"Commit"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.publish(TestEvent(2), true), NotifyDeadlockException);
    EXPECT_THROW(manager.publish(TestEvent(2)), NotifyDeadlockException);
    manager.publish(TestEvent(3), false);
    manager.unSubscribe("Other", &other, &Recorder::onTest);
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(1), true);
  drainQueue();
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 3}));  // The refused publishes queued nothing.
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);             // "Edit", "Commit", "TestEvent": "Other" is gone.
  EXPECT_EQ(defaultManager().getMailerCount(), 1U);
}
