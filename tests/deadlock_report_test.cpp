// A request that takes about 70 seconds prints the deadlock report exactly
// once, after about a minute of polls, and then completes normally.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "DefaultEventMgr.h"
#include "TestSupport.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::EventMgr;
using namespace vexutil::testing_support;

TEST(DeadlockReport, PrintedOnceForARequestOfSeventySeconds) {
  EventMgr& manager = *EventMgr::instance();
  Recorder slow;
  // The work under test takes this long; nothing here measures speed.
  slow.setAction([](const BaseEvent&) { std::this_thread::sleep_for(std::chrono::seconds(70)); });
  manager.subscribe("TestEvent", &slow, &Recorder::onTest);
  ::testing::internal::CaptureStdout();
  manager.publish(TestEvent(1), true);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed,
            "Event dispatch from vexutil::eventmgr::EventMgr (ostrel/src/vexutil) appears to be deadlocked. "
            "Contact vexutil-maintainers@lists.vexutil.org.\n");
  EXPECT_EQ(slow.count(), 1U);
  EXPECT_EQ(std::string(vexutil::eventmgr::kDeadlockReport) + "\n", printed);
}
