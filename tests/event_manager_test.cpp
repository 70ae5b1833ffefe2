// SPDX-License-Identifier: MIT
// The default manager: the instance, subscriptions, delivery, reports and
// counts, seen through the public interface.
#include "Corvane/System/UserException.h"
#include "UnitTest.h"

// An event reaches a client once per subscribed name in its type list; the adapter's type test drops others. A
// subscriber is its object and Target/Event pair: a duplicate is dropped, removal needs no handler. The count has one
// entry per subscriber and name, not counting the dispatcher's own.
TEST(EventManager, RoutesByEveryTypeNameOfTheChainToEachSubscriberOnce) {
  EventMgr& manager = *EventMgr::instance();
  Recorder byEdit;
  Recorder byTest;
  Recorder byBoth;
  Recorder byBase;  // Its handler takes TestEvents only.
  manager.subscribe("Edit", &byEdit, &Recorder::onTest);
  manager.subscribe("TestEvent", &byTest, &Recorder::onTest);
  manager.subscribe("TestEvent", &byTest, &Recorder::onTest);
  manager.subscribe(Names{"Edit", "TestEvent"}, clientFor(byBoth));
  manager.subscribe("BaseEvent", &byBase, &Recorder::onTest);
  EXPECT_EQ(manager.getSubscriptionCount(), 5U);
  manager.publish(NamedEvent("Edit", 4), true);
  manager.publish(TestEvent(5), true);
  manager.publish(BaseEvent(), true);
  EXPECT_EQ(byEdit.payloads(), (std::vector<int>{4}));
  EXPECT_EQ(byTest.payloads(), (std::vector<int>{4, 5}));
  EXPECT_EQ(byBoth.labels(), (Names{"Edit4", "Edit4", "TestEvent5"}));
  EXPECT_EQ(byBase.payloads(), (std::vector<int>{4, 5}));
  manager.unSubscribe(Names{"TestEvent", "Other"},
                      EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&byTest, nullptr)));
  EXPECT_EQ(manager.getSubscriptionCount(), 4U);
  manager.publish(TestEvent(6), true);
  EXPECT_EQ(byTest.payloads(), (std::vector<int>{4, 5}));
}

namespace {
// The report line for a failure of `client`, at `position` among the subscribers of the name.
std::string expectedReport(const std::string& description, long position, const EventMgr::ClientPtr& client,
                           const std::string& tail) {
  return "DefaultEventMgr::deliver: event [" + description + "] client [" + std::to_string(position) + " " +
         std::to_string(client->getClassId()) + " : " + std::to_string(client->getInstanceId()) + "\n" + tail;
}
}  // namespace

// A failing subscriber's exact report is printed once, by the next publisher, and only the latest unprinted one.
// The other subscribers still get the event; the second round queues two failures behind a held dispatcher.
TEST(EventManagerReports, NextPublisherPrintsTheLatestReportOnce) {
  EventMgr& manager = *EventMgr::instance();
  Recorder thrower;  // A user exception for payload 1, a standard one otherwise.
  thrower.setAction([](const BaseEvent& event) {
    if (dynamic_cast<const TestEvent&>(event).payload() == 1) {
      throw Corvane::System::UserException("Widget", "value out of range");
    }
    throw std::runtime_error("ignored text");
  });
  Recorder sameName;
  Recorder afterwards;  // Under "BaseEvent": called after every "TestEvent" subscriber.
  const EventMgr::ClientPtr throwing = clientFor(thrower);
  const EventMgr::ClientPtr recording = clientFor(sameName);
  manager.subscribe("TestEvent", throwing);
  manager.subscribe("TestEvent", recording);
  manager.subscribe("BaseEvent", &afterwards, &Recorder::onTest);
  EXPECT_EQ(printedBy([&] {
              manager.publish(TestEvent(1), false);
              EXPECT_TRUE(afterwards.waitFor(1));
            }),
            "");
  EXPECT_EQ(sameName.count(), 1U);
  const long position = vexutil::eventmgr::ClientOrder()(throwing, recording) ? 0 : 1;
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), false); }),
            expectedReport("VERSION 0\nTYPESLENGTH 2\nTYPES TestEvent::BaseEvent::\n", position, throwing,
                           "] Exception [Widget:value out of range\n"));
  DispatcherHold hold;
  EXPECT_EQ(printedBy([&] {
              manager.publish(TestEvent(1), false);
              manager.publish(NamedEvent("Edit", 2), false);
              hold.release();
              EXPECT_TRUE(afterwards.waitFor(3));
            }),
            "");
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), true); }),
            expectedReport("VERSION 0\nTYPESLENGTH 3\nTYPES Edit::TestEvent::BaseEvent::\n", position, throwing,
                           "] Unknown Exception\n"));
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), true); }), "");
}
