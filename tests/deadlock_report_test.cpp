// A request that waits for more than a minute prints the deadlock report
// exactly once and then completes normally.
#include <sys/stat.h>
#include <unistd.h>

#include "UnitTest.h"

namespace {

// Bytes written to standard output so far; the test captures it into a file.
off_t bytesPrinted() {
  struct stat status {};
  return fstat(STDOUT_FILENO, &status) == 0 ? status.st_size : 0;
}

}  // namespace

// A request waiting more than a minute prints the deadlock report once, byte for byte, then completes.
TEST(DeadlockReport, PrintedOnceForARequestOfOverAMinute) {
  EventMgr& manager = *EventMgr::instance();
  Recorder slow;
  // The subscriber keeps the request waiting until the report has appeared
  // (it counts 1 ms polls, so a loaded machine takes longer than a minute),
  // then a little longer, so that a second report would show. The
  // three-minute bound only keeps a broken build from hanging.
  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration untilReport{};
  slow.setAction([&](const BaseEvent&) {
    const auto giveUp = start + std::chrono::minutes(3);
    while (bytesPrinted() == 0 && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    untilReport = std::chrono::steady_clock::now() - start;
    std::this_thread::sleep_for(std::chrono::seconds(2));
  });
  manager.subscribe("TestEvent", &slow, &Recorder::onTest);
  EXPECT_EQ(printedBy([&] { manager.publish(TestEvent(1), true); }),
            "Event dispatch from vexutil::eventmgr::EventMgr (ostrel/src/vexutil) appears to be deadlocked. "
            "Contact vexutil-maintainers@lists.vexutil.org.\n");
  EXPECT_EQ(slow.count(), 1U);
  // 60001 polls of at least a millisecond each: never sooner than a minute.
  EXPECT_GE(untilReport, std::chrono::seconds(60));
}
