// SPDX-License-Identifier: MIT
// The default manager's failure reports, seen through the public interface.
#include "Corvane/System/UserException.h"
#include "UnitTest.h"

// A failing subscriber's exact report is printed once, by the next publisher, and only the latest unprinted one.
// The second round queues two failures behind a held dispatcher.
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
  // The failing client's line: its position among the subscribers of the name, then its ids.
  const std::string client = "] client [" + std::to_string(ClientOrder()(throwing, recording) ? 0 : 1) + " " +
                             std::to_string(throwing->getClassId()) + " : " +
                             std::to_string(throwing->getInstanceId()) + "\n";
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), false); }),
            "DefaultEventMgr::deliver: event [VERSION 0\nTYPESLENGTH 2\nTYPES TestEvent::BaseEvent::\n" + client +
                "] Exception [Widget:value out of range\n");
  DispatcherHold hold;
  EXPECT_EQ(printedBy([&] {
              manager.publish(TestEvent(1), false);
              manager.publish(NamedEvent("Edit", 2), false);
              hold.release();
              EXPECT_TRUE(afterwards.waitFor(3));
            }),
            "");
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), true); }),
            "DefaultEventMgr::deliver: event [VERSION 0\nTYPESLENGTH 3\nTYPES Edit::TestEvent::BaseEvent::\n" + client +
                "] Unknown Exception\n");
  EXPECT_EQ(printedBy([&] { manager.publish(BaseEvent(), true); }), "");
}
