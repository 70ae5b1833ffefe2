// The default manager: the instance, subscriptions, delivery, reports and
// counts, seen through the public interface.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Corvane/System/UserException.h"
#include "DefaultEventMgr.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::EventMgr;
using vexutil::inputreqevt::InputRequestEvent;
using namespace vexutil::testing_support;

// Racing first calls of instance() get one manager, the default one.
TEST(EventManagerInstance, ConcurrentFirstCallsShareOneManager) {
  constexpr int kThreads = 8;
  Gate start;
  std::vector<EventMgr*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ASSERT_TRUE(start.wait());
      seen[static_cast<std::size_t>(i)] = EventMgr::instance();
    });
  }
  start.open();
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (EventMgr* manager : seen) {
    EXPECT_EQ(manager, seen.front());
  }
  EXPECT_NE(dynamic_cast<vexutil::eventmgr::DefaultEventMgr*>(seen.front()), nullptr);
}

// Subscribed handlers receive events of their type names, on the dispatcher thread.
TEST(EventManager, DeliversToSubscribersOnTheDispatcherThread) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(1), false);
  manager.publish(TestEvent(2), true);
  ASSERT_TRUE(recorder.waitFor(2));
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2}));
  for (const Delivery& delivery : recorder.deliveries()) {
    EXPECT_EQ(delivery.thread, dispatcherThreadId());
    EXPECT_NE(delivery.thread, Corvane::System::ThreadId::self());
  }
}

// A subscriber receives the manager's clone, not the published object.
TEST(EventManager, SubscribersReceiveAClone) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  const TestEvent published(3);
  manager.publish(published, true);
  ASSERT_EQ(recorder.count(), 1U);
  EXPECT_NE(recorder.deliveries().front().address, &published);
}

// An event reaches a client once per subscribed name of its chain, most derived first.
TEST(EventManager, DerivedEventReachesEachSubscribedName) {
  EventMgr& manager = *EventMgr::instance();
  Recorder byDerived;
  Recorder byBase;
  Recorder byBoth;
  manager.subscribe("DerivedTestEvent", &byDerived, &Recorder::onTest);
  manager.subscribe("TestEvent", &byBase, &Recorder::onTest);
  manager.subscribe(EventMgr::TypeList{"DerivedTestEvent", "TestEvent"},
                    EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&byBoth, &Recorder::onTest)));
  manager.publish(DerivedTestEvent(4), true);
  manager.publish(TestEvent(5), true);
  EXPECT_EQ(byDerived.payloads(), (std::vector<int>{4}));
  EXPECT_EQ(byBase.payloads(), (std::vector<int>{4, 5}));
  EXPECT_EQ(byBoth.payloads(), (std::vector<int>{4, 4, 5}));
}

// The adapter's own type test filters what its name subscription lets through.
TEST(EventManager, AdapterIgnoresEventsOfOtherClasses) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("BaseEvent", &recorder, &Recorder::onTest);  // Expects TestEvent.
  manager.publish(BaseEvent(), true);
  manager.publish(InputRequestEvent(), true);
  manager.publish(TestEvent(6), true);
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{6}));
}

// Subscribing the same object twice (even with another handler) leaves one subscription, silently.
TEST(EventManager, DuplicateSubscriptionIsDroppedSilently) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  ::testing::internal::CaptureStdout();
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  EXPECT_EQ(manager.getSubscriptionCount(), 1U);
  manager.publish(TestEvent(7), true);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(recorder.count(), 1U);
}

// Counts: subscriptions exclude the dispatcher's own; the queue count sees waiting events.
TEST(EventManager, CountsExcludeInternalSubscriptionAndSeeQueuedEvents) {
  EventMgr& manager = *EventMgr::instance();
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  Recorder first;
  Recorder second;
  manager.subscribe(EventMgr::TypeList{"A", "B"},
                    EventMgr::ClientPtr(new ClientAdapter<Recorder, BaseEvent>(&first, &Recorder::onBase)));
  manager.subscribe("A", &second, &Recorder::onBase);
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);

  // Hold the dispatcher inside a delivery so that later events stay queued.
  Gate release;
  Gate holding;
  Recorder blocker;
  blocker.setAction([&](const BaseEvent&) {
    holding.open();
    EXPECT_TRUE(release.wait());
  });
  manager.subscribe("TestEvent", &blocker, &Recorder::onTest);
  manager.publish(TestEvent(0), false);
  ASSERT_TRUE(holding.wait());
  manager.publish(BaseEvent(), false);
  manager.publish(BaseEvent(), false);
  EXPECT_EQ(manager.getPendingEventCount(), 2U);
  release.open();
  drainQueue();
  EXPECT_EQ(manager.getPendingEventCount(), 0U);

  manager.unSubscribe(EventMgr::TypeList{"A", "B"},
                      EventMgr::ClientPtr(new ClientAdapter<Recorder, BaseEvent>(&first, &Recorder::onBase)));
  manager.unSubscribe("A", &second, &Recorder::onBase);
  manager.unSubscribe("TestEvent", &blocker, &Recorder::onTest);
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
}

// The dispatcher and the main thread are "dispatch or main"; other threads are not.
TEST(EventManager, DispatchOrMainThread) {
  EventMgr& manager = *EventMgr::instance();
  EXPECT_TRUE(manager.isDispatchOrMainThread());
  bool onWorker = true;
  std::thread([&] { onWorker = manager.isDispatchOrMainThread(); }).join();
  EXPECT_FALSE(onWorker);
  std::atomic<bool> onDispatcher{false};
  Recorder recorder;
  recorder.setAction([&](const BaseEvent&) { onDispatcher = manager.isDispatchOrMainThread(); });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(), true);
  EXPECT_TRUE(onDispatcher.load());
}

// unSubscribe with another member function still removes the object's subscription.
TEST(EventManager, UnsubscribeMatchesByObjectNotHandler) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onBase);
  struct Other {
    static void unused(const BaseEvent&) {}
  };
  manager.unSubscribe("TestEvent", &recorder, static_cast<void (Recorder::*)(const BaseEvent&)>(nullptr));
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  manager.publish(TestEvent(), true);
  EXPECT_EQ(recorder.count(), 0U);
}

// Bad input: null clients and targets, empty names, unknown names, never-subscribed removal.
TEST(EventManager, BadInputIsANoOp) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", EventMgr::ClientPtr());
  manager.subscribe("", &recorder, &Recorder::onTest);
  manager.subscribe("TestEvent", static_cast<Recorder*>(nullptr), &Recorder::onTest);
  manager.subscribe("TestEvent", &recorder, static_cast<void (Recorder::*)(const TestEvent&)>(nullptr));
  manager.subscribe(EventMgr::TypeList{}, EventMgr::ClientPtr());
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  manager.unSubscribe("Never", &recorder, &Recorder::onTest);
  manager.unSubscribe("TestEvent", EventMgr::ClientPtr());
  manager.unSubscribe("", &recorder, &Recorder::onTest);
  manager.unSubscribe("TestEvent", static_cast<Recorder*>(nullptr), &Recorder::onTest);
  manager.subscribe("NoSuchEventType", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(), true);
  EXPECT_EQ(recorder.count(), 0U);
  EXPECT_EQ(manager.getSubscriptionCount(), 1U);
}

// An event whose clone() yields null is not published; one whose clone() throws
// passes the exception to the publisher; nothing is queued either way.
TEST(EventManager, FailingCloneQueuesNothing) {
  struct NullClone : TestEvent {
    TestEvent* clone() const override { return nullptr; }
  };
  struct ThrowingClone : TestEvent {
    TestEvent* clone() const override { throw std::bad_alloc(); }
  };
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(NullClone(), false);
  manager.publish(NullClone(), true);
  EXPECT_THROW(manager.publish(ThrowingClone(), false), std::bad_alloc);
  EXPECT_THROW(manager.publish(ThrowingClone(), true), std::bad_alloc);
  EXPECT_EQ(manager.getPendingEventCount(), 0U);
  manager.publish(TestEvent(8), true);
  EXPECT_EQ(recorder.payloads(), std::vector<int>{8});
}

namespace {

struct Thrower {
  int calls = 0;
  void throwUser(const TestEvent&) {
    ++calls;
    throw Corvane::System::UserException("Widget", "value out of range");
  }
  void throwOther(const TestEvent&) {
    ++calls;
    throw std::runtime_error("ignored text");
  }
};

std::string expectedReport(const std::string& description, long position, const vexutil::eventmgr::ClientProxy& client,
                           const std::string& tail) {
  return "DefaultEventMgr::deliver: event [" + description + "] client [" + std::to_string(position) + " " +
         std::to_string(client.getClassId()) + " : " + std::to_string(client.getInstanceId()) + "\n" + tail;
}

const char* const kTestEventDescription = "VERSION 0\nTYPESLENGTH 2\nTYPES TestEvent::BaseEvent::\n";

}  // namespace

// A failing subscriber does not stop the others; the next publisher prints the exact report.
TEST(EventManagerReports, UserExceptionReportIsPrintedByNextPublisher) {
  EventMgr& manager = *EventMgr::instance();
  Thrower thrower;
  Recorder sameName;
  // Under "BaseEvent", so called after every "TestEvent" subscriber; its
  // handler takes TestEvents only, so the manager's internal requests (which
  // are BaseEvents too) do not count.
  Recorder afterwards;
  const EventMgr::ClientPtr throwing(new ClientAdapter<Thrower, TestEvent>(&thrower, &Thrower::throwUser));
  const EventMgr::ClientPtr recording(new ClientAdapter<Recorder, TestEvent>(&sameName, &Recorder::onTest));
  manager.subscribe("TestEvent", throwing);
  manager.subscribe("TestEvent", recording);
  manager.subscribe("BaseEvent", &afterwards, &Recorder::onTest);

  ::testing::internal::CaptureStdout();
  manager.publish(TestEvent(1), false);
  ASSERT_TRUE(afterwards.waitFor(1));
  const std::string beforeNextPublish = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(beforeNextPublish, "");
  EXPECT_EQ(sameName.count(), 1U);  // The failure did not stop the other subscriber.

  ::testing::internal::CaptureStdout();
  manager.publish(BaseEvent(), false);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  const long position = vexutil::eventmgr::DefaultEventMgr::ClientOrder()(throwing, recording) ? 0 : 1;
  EXPECT_EQ(printed, expectedReport(kTestEventDescription, position, *throwing,
                                    "] Exception [Widget:value out of range\n"));
  // Printed once: the report is cleared.
  ::testing::internal::CaptureStdout();
  manager.publish(BaseEvent(), true);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// Any other exception gives the "Unknown Exception" report; only the latest unprinted one is kept.
TEST(EventManagerReports, OtherExceptionsReportUnknownAndLatestWins) {
  EventMgr& manager = *EventMgr::instance();
  Thrower thrower;
  Recorder afterwards;
  const EventMgr::ClientPtr throwing(new ClientAdapter<Thrower, TestEvent>(&thrower, &Thrower::throwOther));
  manager.subscribe("TestEvent", throwing);
  manager.subscribe("BaseEvent", &afterwards, &Recorder::onTest);
  // Hold the dispatcher so that both failures happen with no publisher in
  // between to print the first.
  Gate release;
  Recorder blocker;
  blocker.setAction([&](const BaseEvent&) { EXPECT_TRUE(release.wait()); });
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  ::testing::internal::CaptureStdout();
  manager.publish(InputRequestEvent(), false);
  manager.publish(TestEvent(1), false);
  manager.publish(DerivedTestEvent(2), false);
  release.open();
  ASSERT_TRUE(afterwards.waitFor(2));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  ::testing::internal::CaptureStdout();
  manager.publish(BaseEvent(), false);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            expectedReport("VERSION 0\nTYPESLENGTH 3\nTYPES DerivedTestEvent::TestEvent::BaseEvent::\n", 0, *throwing,
                           "] Unknown Exception\n"));
  EXPECT_EQ(thrower.calls, 2);
}

// Unsubscribing inside notify leaves the running delivery alone and stops later ones.
TEST(EventManager, UnsubscribeInsideNotifyUsesTheSnapshot) {
  EventMgr& manager = *EventMgr::instance();
  Recorder first;
  Recorder second;
  Recorder third;
  std::vector<Recorder*> all{&first, &second, &third};
  // Whoever is called first removes everybody, itself included.
  auto removeAll = [&](const BaseEvent&) {
    for (Recorder* recorder : all) {
      manager.unSubscribe("TestEvent", recorder, &Recorder::onTest);
    }
  };
  for (Recorder* recorder : all) {
    recorder->setAction(removeAll);
    manager.subscribe("TestEvent", recorder, &Recorder::onTest);
  }
  manager.publish(TestEvent(1), true);
  EXPECT_EQ(first.count() + second.count() + third.count(), 3U);
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  manager.publish(TestEvent(2), true);
  EXPECT_EQ(first.count() + second.count() + third.count(), 3U);
}

// An asynchronous publish returns before delivery; a synchronous one after it.
TEST(EventManager, AsynchronousReturnsBeforeSynchronousAfterDelivery) {
  EventMgr& manager = *EventMgr::instance();
  Gate release;
  Recorder recorder;
  recorder.setAction([&](const BaseEvent&) { EXPECT_TRUE(release.wait()); });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  // The subscriber cannot finish before the gate opens, so a publish that
  // waited for it would never get here.
  manager.publish(TestEvent(1), false);
  EXPECT_EQ(recorder.count(), 0U);
  release.open();
  manager.publish(TestEvent(2), true);
  EXPECT_EQ(recorder.count(), 2U);
}

// subscribe and a synchronous publish inside notify throw NotifyDeadlockException;
// an asynchronous publish and unSubscribe work there.
TEST(EventManager, WaitingRequestsInsideNotifyAreRefused) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  Recorder other;
  std::vector<std::string> outcomes;
  recorder.setAction([&](const BaseEvent& event) {
    if (dynamic_cast<const TestEvent&>(event).payload() != 1) {
      return;
    }
    auto attempt = [&](const char* what, auto&& call) {
      try {
        call();
        outcomes.push_back(std::string(what) + " ok");
      } catch (const vexutil::eventmgr::NotifyDeadlockException&) {
        outcomes.push_back(std::string(what) + " refused");
      }
    };
    attempt("subscribe", [&] { manager.subscribe("X", &other, &Recorder::onBase); });
    attempt("subscribe list", [&] {
      manager.subscribe(EventMgr::TypeList{"X"}, EventMgr::ClientPtr(new ClientAdapter<Recorder, BaseEvent>(
                                                      &other, &Recorder::onBase)));
    });
    attempt("publish sync", [&] { manager.publish(TestEvent(2), true); });
    attempt("publish default", [&] { manager.publish(TestEvent(2)); });
    attempt("publish async", [&] { manager.publish(TestEvent(3), false); });
    attempt("unsubscribe", [&] { manager.unSubscribe("TestEvent", &other, &Recorder::onTest); });
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(1), true);
  drainQueue();
  EXPECT_EQ(outcomes, (std::vector<std::string>{"subscribe refused", "subscribe list refused", "publish sync refused",
                                                "publish default refused", "publish async ok", "unsubscribe ok"}));
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 3}));
  EXPECT_EQ(manager.getSubscriptionCount(), 1U);
}

// Events published by one thread arrive in that thread's order.
TEST(EventManager, OneProducersEventsArriveInOrder) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  std::thread producer([&] {
    for (int i = 0; i < 1000; ++i) {
      manager.publish(TestEvent(i), false);
    }
  });
  producer.join();
  drainQueue();
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back(i);
  }
  EXPECT_EQ(recorder.payloads(), expected);
}
