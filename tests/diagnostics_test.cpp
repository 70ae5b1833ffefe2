// SPDX-License-Identifier: MIT
// The failure observer, slow-subscriber reports, live counts and environment thresholds (tracepoints:
// tracepoints_test.sh).

#include "Corvane/System/UserException.h"
#include "UnitTest.h"

using Kind = DiagnosticReport::Kind;

namespace diagtest {

// Collects what the observer is told, from the dispatcher thread, from its construction on.
struct ReportLog {
  ReportLog() {
    Diagnostics::setObserver([this](const DiagnosticReport& report) {
      const std::lock_guard<std::mutex> lock(mutex);
      reports.push_back(report);
    });
  }
  std::vector<DiagnosticReport> of(Kind kind, const std::string& eventType) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<DiagnosticReport> found;
    std::copy_if(reports.begin(), reports.end(), std::back_inserter(found),
                 [&](const DiagnosticReport& report) { return report.kind == kind && report.eventType == eventType; });
    return found;
  }
  mutable std::mutex mutex;
  std::vector<DiagnosticReport> reports;
};

// Throws what its payload selects: 1 a standard exception, 2 a host user
// exception.
struct SensorPanel {
  void onReading(const TestEvent& event) {  // NOLINT(readability-convert-member-functions-to-static)
    if (event.payload() == 1) {
      throw std::runtime_error("sensor 42 out of range");
    }
    throw Corvane::System::UserException("Sensor driver", "sensor 42 offline");
  }
};

// A subscriber that is not made by ClientAdapter.
class RawProxy : public ClientProxy {
 public:
  void notify(const BaseEvent& /*event*/) const override { throw std::logic_error("raw"); }
  std::uint64_t getClassId() const override { return 7; }
  std::uint64_t getInstanceId() const override { return 9; }
};

// Takes its time over every event: the slowness under test.
struct SlowPanel {
  void onSlow(const TestEvent& /*event*/) { std::this_thread::sleep_for(std::chrono::milliseconds(8)); }
};

}  // namespace diagtest

using namespace diagtest;

// Proves: the observer gets each exception with its texts and the subscriber's readable name, and the existing
// report line is still printed unchanged; thresholds come from ctest's environment (VEXUTIL_SLOW_QUEUE_MS=250),
// and junk leaves one off. Then an observer that throws harms neither the delivery nor later ones, and one removed
// during its own call lives until that call returns. Interleaving forced: the dispatcher is inside the observer
// (entered) when the test removes it; only then is the observer let go (released).
TEST(Diagnostics, ObserverSeesFailuresAndAThrowingOneIsContainedAndOutlivesItsRemoval) {
  EXPECT_EQ(Diagnostics::getSlowQueueThreshold(), std::chrono::milliseconds(250));
  EXPECT_EQ(Diagnostics::getSlowNotifyThreshold(), std::chrono::nanoseconds(0));
  const ReportLog log;
  SensorPanel panel;
  EventMgr* const manager = EventMgr::instance();
  manager->subscribe("Reading", &panel, &SensorPanel::onReading);
  manager->subscribe("Raw", EventMgr::ClientPtr(new RawProxy));

  // The first failure's line is printed by the first publish's wait or, at
  // the latest, by the second publish.
  const std::string printed = printedBy([&] {
    manager->publish(NamedEvent("Reading", 1), true);
    manager->publish(NamedEvent("Reading", 2), true);
  });
  manager->publish(NamedEvent("Raw", 0), true);
  Diagnostics::setObserver(nullptr);

  const std::vector<DiagnosticReport> readings = log.of(Kind::kSubscriberFailure, "Reading");
  ASSERT_EQ(readings.size(), 2U);
  EXPECT_EQ(readings[0].subscriber, "diagtest::SensorPanel");
  EXPECT_EQ(readings[0].subscriberInstanceId, reinterpret_cast<std::uintptr_t>(&panel));
  EXPECT_EQ(Diagnostics::describeException(readings[0].exception), "std::runtime_error: sensor 42 out of range");
  EXPECT_NE(readings[0].text.find("diagtest::SensorPanel"), std::string::npos) << readings[0].text;
  EXPECT_NE(readings[0].text.find("sensor 42 out of range"), std::string::npos) << readings[0].text;
  EXPECT_EQ(Diagnostics::describeException(readings[1].exception), "Sensor driver: sensor 42 offline");
  EXPECT_NE(readings[1].text.find("Sensor driver: sensor 42 offline"), std::string::npos) << readings[1].text;

  const std::vector<DiagnosticReport> raws = log.of(Kind::kSubscriberFailure, "Raw");
  ASSERT_EQ(raws.size(), 1U);
  EXPECT_EQ(raws[0].subscriber, "diagtest::RawProxy");
  EXPECT_EQ(raws[0].subscriberClassId, 7U);
  EXPECT_NE(raws[0].text.find("[7 : 9]"), std::string::npos) << raws[0].text;

  // The first failure's line, as before.
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos) << printed;
  EXPECT_EQ(printed.find("out of range"), std::string::npos) << printed;  // The old line has no what().

  Gate entered;
  Gate released;
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = token;
  Diagnostics::setObserver([token, &entered, &released](const DiagnosticReport& /*report*/) {
    entered.open();
    EXPECT_TRUE(released.wait());
    throw std::runtime_error("observer failed");
  });
  token.reset();
  Recorder after;
  manager->subscribe("Reading", &after, &Recorder::onTest);

  manager->publish(NamedEvent("Reading", 1), false);
  ASSERT_TRUE(entered.wait());
  Diagnostics::setObserver(nullptr);
  EXPECT_FALSE(watch.expired());  // The call in progress still holds it.
  released.open();

  drainQueue();
  EXPECT_TRUE(watch.expired());
  // Both subscribers exist as different classes; whichever came second in
  // set order still got the event, and so does the next one.
  manager->publish(NamedEvent("Reading", 2), true);
  EXPECT_EQ(after.count(), 2U);
}

// Proves: a slow subscriber is named once per interval, an event stuck behind it once as waiting, and without an
// observer the report goes to the host's output.
TEST(Diagnostics, SlowSubscriberIsNamedOncePerInterval) {
  const ReportLog log;
  Diagnostics::setSlowNotifyThreshold(std::chrono::milliseconds(2));
  Diagnostics::setSlowQueueThreshold(std::chrono::milliseconds(2));
  Diagnostics::setReportInterval(std::chrono::hours(1));
  SlowPanel slow;
  Recorder quick;
  EventMgr* const manager = EventMgr::instance();
  manager->subscribe("Slow", &slow, &SlowPanel::onSlow);
  manager->subscribe("Quick", &quick, &Recorder::onTest);

  for (int i = 0; i < 4; ++i) {
    manager->publish(NamedEvent("Slow", i), false);
    manager->publish(NamedEvent("Quick", i), false);  // Waits behind the slow one.
  }
  drainQueue();

  const std::vector<DiagnosticReport> slowReports = log.of(Kind::kSlowNotify, "Slow");
  ASSERT_EQ(slowReports.size(), 1U);
  EXPECT_EQ(slowReports[0].subscriber, "diagtest::SlowPanel");
  EXPECT_GE(slowReports[0].duration, std::chrono::milliseconds(8));
  EXPECT_EQ(log.of(Kind::kSlowQueueWait, "Quick").size(), 1U);
  EXPECT_EQ(Diagnostics::getCounts().longestNotifySubscriber, "diagtest::SlowPanel");

  Diagnostics::setObserver(nullptr);
  Diagnostics::setReportInterval(std::chrono::nanoseconds(0));
  const std::string printed = printedBy([&] { manager->publish(NamedEvent("Slow", 9), true); });
  EXPECT_NE(printed.find("vexutil: slow subscriber diagtest::SlowPanel"), std::string::npos) << printed;
  EXPECT_NE(printed.find(" in notify for Slow"), std::string::npos) << printed;
}

// Proves: four threads' heard, failing and unheard events each count once, published = delivered + failed +
// noSubscriber, and no snapshot meanwhile shows more outcomes than events.
TEST(Diagnostics, CountsAddUpAfterMultiThreadedRun) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 300;  // A third of each kind.
  SensorPanel thrower;
  Recorder heard;
  EventMgr* const manager = EventMgr::instance();
  manager->subscribe("Heard", &heard, &Recorder::onTest);
  manager->subscribe("Reading", &thrower, &SensorPanel::onReading);
  const EventCounts before = Diagnostics::getCounts();

  Counter ready;
  Gate start;
  std::atomic<bool> publishing{true};
  std::thread reader([&] {
    while (publishing.load()) {
      const EventCounts now = Diagnostics::getCounts();
      ASSERT_GE(now.published - before.published, (now.delivered - before.delivered) + (now.failed - before.failed) +
                                                      (now.noSubscriber - before.noSubscriber));
    }
  });
  std::vector<std::thread> publishers(kThreads);
  for (std::thread& publisher : publishers) {
    publisher = std::thread([&] {
      ready.add();
      EXPECT_TRUE(start.wait());
      static const char* const kTypes[] = {"Heard", "Reading", "Unheard"};
      for (int i = 0; i < kPerThread; ++i) {
        manager->publish(NamedEvent(kTypes[i % 3], 1), false);
      }
    });
  }
  ASSERT_TRUE(ready.waitFor(kThreads));
  printedBy([&] {  // The failure lines that publishers print are not under test.
    start.open();
    for (std::thread& publisher : publishers) {
      publisher.join();
    }
    manager->publish(NamedEvent("Heard", 0), true);
  });
  publishing.store(false);
  reader.join();

  const EventCounts after = Diagnostics::getCounts();
  const std::uint64_t third = kThreads * kPerThread / 3;
  EXPECT_EQ(after.published - before.published, 3 * third + 1);
  EXPECT_EQ(after.delivered - before.delivered, third + 1);
  EXPECT_EQ(after.failed - before.failed, third);
  EXPECT_EQ(after.noSubscriber - before.noSubscriber, third);
  EXPECT_EQ(after.subscriberExceptions - before.subscriberExceptions, third);
  EXPECT_EQ(after.queueDepth, 0U);
  EXPECT_GE(after.queueHighWater, 1U);
}
