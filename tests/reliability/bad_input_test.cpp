// SPDX-License-Identifier: MIT
// Bad input through the public interface: list and two-list forms with empty
// names, empty lists or null clients, inert subscribers, events whose clone
// fails or whose type list is odd (context sets with null entries: context_registry_test.cpp). Each
// must be a defined no-op or a clear error, never a crash or a hang, and
// nothing already accepted may be lost. Calls after shutdown are in
// ReliabilityFaults.ShutdownWithWaitersAndQueuedEventsRepeatedly.

#include "UnitTest.h"

// Misused single-name and list forms, inert subscribers and failing clones neither wait for a held dispatcher nor
// lose queued events; single-name calls with null clients, targets or handlers, or empty names, do nothing.
TEST(ReliabilityBadInput, OddListsSubscribersAndClonesLoseNothingQueued) {
  struct NullClone : TestEvent {
    TestEvent* clone() const override { return nullptr; }
  };
  struct ThrowingClone : TestEvent {
    TestEvent* clone() const override { throw std::bad_alloc(); }
  };
  using Adapter = ClientAdapter<Recorder, TestEvent>;
  DefaultEventMgr& manager = defaultManager();
  Recorder recorder;
  Recorder odd;
  const EventMgr::ClientPtr client = clientFor(recorder);
  manager.subscribe(Names{"", "A", "", "B", "A"}, client);  // Empty names skipped, the repeat kept once.
  // Accepted, but they never hand anything over: no names, a delayed name without a trigger ("" is skipped),
  // a trigger with nothing held, a null target, a null handler.
  manager.subscribe(Names{}, Names{}, clientFor(odd));
  manager.subscribe(Names{"", "Held"}, Names{""}, clientFor(odd));
  manager.subscribe(Names{}, Names{"B"}, clientFor(odd));
  manager.subscribe(Names{"A", "Other"}, EventMgr::ClientPtr(new Adapter(nullptr, &Recorder::onTest)));
  manager.subscribe(Names{"A"}, Names{"B"}, EventMgr::ClientPtr(new Adapter(&odd, nullptr)));
  auto hold = std::make_unique<DispatcherHold>();  // What follows queues behind it until it is reset.
  for (int i = 1; i <= 5; ++i) {
    manager.publish(NamedEvent(Names{i == 5 ? "Held" : i % 2 == 0 ? "A" : "B"}, i), false);
  }
  manager.subscribe("TestEvent", EventMgr::ClientPtr());
  manager.subscribe("", &odd, &Recorder::onTest);
  manager.subscribe("TestEvent", static_cast<Recorder*>(nullptr), &Recorder::onTest);
  manager.subscribe("TestEvent", &odd, static_cast<void (Recorder::*)(const TestEvent&)>(nullptr));
  manager.unSubscribe("TestEvent", EventMgr::ClientPtr());
  manager.unSubscribe("", &recorder, &Recorder::onTest);
  manager.unSubscribe("TestEvent", static_cast<Recorder*>(nullptr), &Recorder::onTest);
  manager.subscribe(Names{}, client);
  manager.subscribe(Names{"C", "D"}, EventMgr::ClientPtr());
  manager.subscribe(Names{"A"}, Names{"B"}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{"A"}, Names{"B"}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{"A"}, Names{"B"}, client);  // There is no such combined subscription.
  manager.publish(NullClone(), false);
  manager.publish(NullClone(), true);
  EXPECT_THROW(manager.publish(ThrowingClone(), false), std::bad_alloc);
  EXPECT_THROW(manager.publish(ThrowingClone(), true), std::bad_alloc);
  EXPECT_EQ(manager.getPendingEventCount(), 5U);
  // Removing what was never subscribed waits, jumps the queue and leaves it alone.
  std::thread remover([&] { manager.unSubscribe(Names{"", "Unknown", "A", "B"}, clientFor(odd)); });
  EXPECT_TRUE(eventually([&] { return manager.getPendingEventCount() == 6; }));
  hold.reset();
  remover.join();
  drainQueue();
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(odd.count(), 0U);
  // Removed with the same lists; any null-target adapter of the class is the same subscriber.
  manager.unSubscribe(Names{}, Names{}, clientFor(odd));
  manager.unSubscribe(Names{"Held", ""}, Names{""}, clientFor(odd));
  manager.unSubscribe(Names{}, Names{"B"}, clientFor(odd));
  manager.unSubscribe(Names{"A"}, Names{"B"}, clientFor(odd));
  manager.unSubscribe(Names{"Other", "A"}, EventMgr::ClientPtr(new Adapter(nullptr, nullptr)));
  manager.unSubscribe(Names{"", "Unknown", "A"}, client);
  EXPECT_EQ(manager.getMailerCount(), 0U);
  EXPECT_EQ(manager.getSubscriptionCount(), 1U);  // "B": "" was never subscribed.
  manager.publish(NamedEvent(Names{"A"}, 6), true);
  manager.publish(NamedEvent(Names{"B"}, 7), true);
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2, 3, 4, 7}));
}

// Odd type lists are routed like any other, the internal requests' name included, and nothing fails.
TEST(ReliabilityBadInput, OddEventTypeListsAreRoutedSafely) {
  EventMgr& manager = *EventMgr::instance();
  Recorder byTest;
  Recorder byRepeat;
  Recorder byInternalName;
  manager.subscribe("TestEvent", &byTest, &Recorder::onTest);
  manager.subscribe("Twice", &byRepeat, &Recorder::onTest);
  manager.subscribe("ActionContainerEvent", &byInternalName, &Recorder::onTest);
  // An empty hand-off on the dispatcher returns at once, although nobody pumps.
  byRepeat.setAction([](const BaseEvent&) { ToDoAdapter::runOnceOnMainThreadImpl(boost::function0<void>()); });
  ::testing::internal::CaptureStdout();
  manager.publish(NamedEvent(Names{""}, 1), true);
  manager.publish(NamedEvent(Names{"Twice", "Twice"}, 2), false);  // Delivered once per entry.
  ASSERT_TRUE(byRepeat.waitFor(2));
  manager.publish(NamedEvent(Names{"NobodyListens"}, 3), false);
  for (int i = 4; i < 8; ++i) {
    manager.publish(NamedEvent(Names{"ActionContainerEvent"}, i), i % 2 == 0);  // Never run as a request.
  }
  manager.publish(TestEvent(8), true);  // The manager's own requests still work.
  manager.publish(BaseEvent(), false);  // Would print a failure report.
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(byTest.payloads(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(byRepeat.payloads(), (std::vector<int>{2, 2}));
  EXPECT_EQ(byInternalName.payloads(), (std::vector<int>{4, 5, 6, 7}));
}
