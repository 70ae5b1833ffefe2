// SPDX-License-Identifier: MIT
// Injected faults: subscribers that throw, many times over, and the manager shut down again and again while
// requests wait and events are queued. The manager must keep delivering, print whole reports, release every
// waiter, deliver nothing after shutdown and keep its memory: LeakSanitizer checks that in the AddressSanitizer
// build, the allocator's figures in the plain one. Each run has a manager of its own, in a forked child.
#include <malloc.h>

#include "Corvane/System/UserException.h"
#include "EventDispatcher.h"
#include "UnitTest.h"

namespace {

// VEXUTIL_RELIABILITY_THROWS, _CYCLES and _HEAP_FIGURES are set by CMake per configuration: the sanitizer builds
// do less and, having allocators of their own, give no heap figures (LeakSanitizer checks for leaks instead). A
// leak of one block per throw or per event would grow the heap by far more than the 1 MiB the plain build
// tolerates.

// Each thrower throws one kind on every call: standard exceptions, the host's IUserException, types the manager
// cannot know (a scalar, a class), and the refusal of a request that would wait for the dispatcher from the
// dispatcher (NotifyDeadlockException).
struct Thrower {
  std::function<void(const TestEvent&)> body;
  long calls = 0;
  void on(const TestEvent& event) {
    ++calls;
    body(event);
  }
};

constexpr std::chrono::minutes kWholeRun(4);

// The throwing run, in a child of its own.
int millionThrows() {
  // Every thread allocates in the main arena, whose bytes in use are measured.
  mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe): before any thread starts.
  EventMgr& manager = *EventMgr::instance();
  std::vector<Thrower> throwers{
      {[](const TestEvent&) { throw std::runtime_error("runtime failure"); }},
      {[](const TestEvent&) { throw std::bad_alloc(); }},
      {[](const TestEvent&) { throw Corvane::System::UserException("FaultTest", "a failure"); }},
      {[](const TestEvent&) { throw 42; }},
      {[](const TestEvent&) { throw std::vector<int>{7}; }},
      {[](const TestEvent& e) { EventMgr::instance()->publish(e, true); }}};
  for (Thrower& thrower : throwers) {
    manager.subscribe("TestEvent", &thrower, &Thrower::on);
  }
  const long perProducer = VEXUTIL_RELIABILITY_THROWS / static_cast<long>(throwers.size()) / 2;
  // Two producers at once, the main thread and another; every 64th publish waits, which bounds the queue.
  const auto produce = [&manager](long from, long to) {
    const auto run = [&manager, from, to] {
      for (long number = from; number < to; ++number) {
        manager.publish(TestEvent(static_cast<int>(number)), number % 64 == 63);
      }
    };
    std::thread other(run);
    run();
    other.join();
  };
  std::size_t before = 0;
  std::size_t after = 0;
  const std::string printed = printedBy([&] {
    produce(0, perProducer / 10);  // Warm-up: queue, report text and caches reach working size.
    drainQueue();
    before = mallinfo2().uordblks;
    produce(perProducer / 10, perProducer);
    drainQueue();
    after = mallinfo2().uordblks;
    manager.publish(BaseEvent(), false);  // Prints the last report.
  });
  for (std::size_t kind = 0; kind < throwers.size(); ++kind) {
    EXPECT_EQ(throwers[kind].calls, 2 * perProducer) << "thrower " << kind;
  }
  // Reports are printed whole, one after the other, nothing else in between: five lines each.
  const Names form{"DefaultEventMgr::deliver: event [VERSION 0", "TYPESLENGTH 2",
                   "TYPES TestEvent::BaseEvent::", "] client [", "] Unknown Exception"};
  std::istringstream lines(printed);
  long count = 0;
  long torn = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const long k = count % 5;
    const bool fits = line == form[k] || (k == 3 && line.rfind(form[k], 0) == 0) ||
                      (k == 4 && line == "] Exception [FaultTest:a failure");
    torn += fits ? 0 : 1;
  }
  EXPECT_TRUE(torn == 0 && count > 0 && count % 5 == 0) << torn << " of " << count << " lines out of place";
  std::cout << "[ figures  ] throws=" << 2 * perProducer * static_cast<long>(throwers.size());
  if (VEXUTIL_RELIABILITY_HEAP_FIGURES) {
    std::cout << " heap in use after warm-up=" << before << " at the end=" << after;
    EXPECT_LT(after, before + (1U << 20)) << "the heap grew by " << (after - before) << " bytes";
  }
  std::cout << std::endl;
  shutDownManager();  // Before the subscribers go.
  return 0;
}
}  // namespace

// A million throws of every kind (fewer under sanitizers) never stop delivery, tear a report or grow the heap.
TEST(ReliabilityFaults, MillionThrowsKeepDeliveryGoing) { EXPECT_EQ(inChild(millionThrows, kWholeRun), 0); }

// Shutdown amid queued events and every kind of waiting request, many times, each with a fresh manager in a child
// of its own: all requesters return to the no-op manager, nothing is delivered after the shutdown, no leak.
TEST(ReliabilityFaults, ShutdownWithWaitersAndQueuedEventsRepeatedly) {
  for (int cycle = 0; cycle < VEXUTIL_RELIABILITY_CYCLES && !HasFailure(); ++cycle) {
    const int status = inChild([] {
      EventMgr& manager = *EventMgr::instance();
      const Names list{"TestEvent", "Queued"};
      const Names delayed{"Edit"};
      const Names triggers{"Commit"};
      Gate holding;
      Recorder blocker;
      Recorder subscribed;
      // Holds the dispatcher until the shutdown has taken the queue and asked it to stop.
      blocker.setAction([&holding](const BaseEvent&) {
        holding.open();
        while (!EventDispatcher::current()->isStopRequested()) {
          std::this_thread::yield();
        }
      });
      const EventMgr::ClientPtr client = clientFor(subscribed);
      manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
      manager.subscribe(list, client);
      manager.subscribe(delayed, triggers, client);
      manager.publish(InputRequestEvent(), false);
      EXPECT_TRUE(holding.wait());
      for (int i = 0; i < 20; ++i) {
        manager.publish(TestEvent(i), false);
      }
      const std::vector<std::function<void()>> requests{
          [&] { manager.publish(TestEvent(100), true); },         [&] { manager.subscribe("Late", client); },
          [&] { manager.subscribe(Names{"Late"}, client); },      [&] { manager.subscribe(list, triggers, client); },
          [&] { manager.unSubscribe("Queued", client); },         [&] { manager.unSubscribe(list, client); },
          [&] { manager.unSubscribe(delayed, triggers, client); }};
      std::vector<std::thread> requesters(requests.size());
      for (std::size_t i = 0; i < requests.size(); ++i) {
        requesters[i] = std::thread([&request = requests[i]] {
          request();  // Released by the shutdown, not before: the manager is the no-op one by then.
          EXPECT_EQ(dynamic_cast<DefaultEventMgr*>(EventMgr::instance()), nullptr);
        });
      }
      EXPECT_TRUE(eventually([&] { return manager.getPendingEventCount() == 20 + requests.size(); }));
      shutDownManager();
      for (std::thread& requester : requesters) {
        requester.join();  // Released, although its request never ran.
      }
      dynamic_cast<ToDoAdapter&>(*EventMgr::instance()).invokeOnceOnMainThread();  // The host's pump.
      EXPECT_EQ(blocker.count(), 1U);
      EXPECT_EQ(subscribed.count(), 0U);
      return 0;
    });
    EXPECT_EQ(status, 0) << "cycle " << cycle;
  }
  std::cout << "[ figures  ] cycles=" << VEXUTIL_RELIABILITY_CYCLES << std::endl;
}
