// Injected faults: subscribers that throw, a million times over; events
// whose clone() fails; the manager destroyed again and again while requests
// wait and events are queued. The manager must keep delivering, report the
// failures, release every waiter, deliver nothing after shutdown and keep its
// memory: LeakSanitizer checks that in the AddressSanitizer build, and the
// plain build compares the allocator's figures before and after.
#include <malloc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Corvane/System/UserException.h"
#include "DefaultEventMgr.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::EventDispatcher;
using vexutil::eventmgr::EventMgr;
using namespace vexutil::testing_support;
using Names = std::vector<std::string>;

namespace {

#ifdef VEXUTIL_RELIABILITY_SANITIZER
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Set by CMake per configuration: a million in the plain build, fewer under
// the sanitizers.
#ifndef VEXUTIL_RELIABILITY_THROWS
#define VEXUTIL_RELIABILITY_THROWS 1000000
#endif

// A count from the environment, or the default.
long countFromEnvironment(const char* name, long fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  const long value = std::strtol(text, nullptr, 10);
  return value > 0 ? value : fallback;
}

// Bytes in use by the allocator, all threads included once the process runs
// with one arena (see useOneArena()). Plain builds only: the sanitizers have
// allocators of their own.
std::size_t bytesInUse() { return mallinfo2().uordblks; }

// ctest runs each test in a process of its own; run together in one
// process, each test starts with a manager of its own (the tests shut theirs
// down at the end).
void startWithFreshManager() {
  if (!vexutil::eventmgr::detail::isDefaultManagerCreated()) {
    restartManager();
  }
}

// Makes every thread allocate from the main arena, which mallinfo2 reports.
// Called before the test starts any thread.
void useOneArena() { mallopt(M_ARENA_MAX, 1); }

// A leak of one small block per throw, per event or per cycle is many times
// this; the allocator's own caches and the queue's blocks stay well below.
constexpr std::size_t kGrowthTolerance = 1U << 20;

// --- Throwing subscribers ------------------------------------------------------

class FaultEvent : public BaseEvent {
 public:
  FaultEvent(int producer, long number) : BaseEvent(Names{"Fault"}), producer_(producer), number_(number) {}
  FaultEvent* clone() const override { return new FaultEvent(*this); }
  static const std::string& typeName() {
    static const std::string name("Fault");
    return name;
  }
  int producer() const { return producer_; }
  long number() const { return number_; }

 private:
  int producer_;
  long number_;
};

struct NonStandardValue {
  int code;
  std::string text;
};

// Each thrower counts its calls; all are called on the dispatcher thread only.
struct StandardThrower {
  long calls = 0;
  void on(const FaultEvent& event) {
    ++calls;
    switch (event.number() % 3) {
      case 0:
        throw std::runtime_error("runtime failure");
      case 1:
        throw std::bad_alloc();
      default:
        throw std::out_of_range("index");
    }
  }
};
struct ValueThrower {
  long calls = 0;
  void on(const FaultEvent& event) {
    ++calls;
    switch (event.number() % 3) {
      case 0:
        throw static_cast<int>(event.number());
      case 1:
        throw "a C string";
      default:
        throw NonStandardValue{7, "not an exception class"};
    }
  }
};
// Makes a request that waits for the dispatcher, from the dispatcher: the
// refusal (NotifyDeadlockException) leaves notify() like any exception.
struct DeadlockThrower {
  long calls = 0;
  void on(const FaultEvent& event) {
    ++calls;
    EventMgr::instance()->publish(event, true);
  }
};
// Subscribed under "BaseEvent", so it is the last subscriber of every
// FaultEvent: its report is the last one stored for each event.
struct UserThrower {
  long calls = 0;
  void on(const FaultEvent& event) {
    ++calls;
    throw Corvane::System::UserException("FaultTest", "failure " + std::to_string(event.number()));
  }
};
// Checks that delivery goes on: every event arrives, each producer's in order.
struct Survivor {
  long calls = 0;
  std::vector<long> lastNumber = std::vector<long>(3, -1);
  long outOfOrder = 0;
  void on(const FaultEvent& event) {
    ++calls;
    long& last = lastNumber[static_cast<std::size_t>(event.producer())];
    if (event.number() <= last) {
      ++outOfOrder;
    }
    last = event.number();
  }
};

std::size_t countOccurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

// Consumes `expected` at `at`.
bool take(const std::string& text, std::size_t& at, const std::string& expected) {
  if (text.compare(at, expected.size(), expected) != 0) {
    return false;
  }
  at += expected.size();
  return true;
}

// Consumes one or more digits at `at`.
bool takeNumber(const std::string& text, std::size_t& at) {
  const std::size_t start = at;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
    ++at;
  }
  return at > start;
}

// One complete failure report about a FaultEvent, nothing more, nothing less.
bool isWholeReport(const std::string& report) {
  std::size_t at = 0;
  if (!take(report, at, "DefaultEventMgr::deliver: event [VERSION 0\nTYPESLENGTH 2\nTYPES Fault::BaseEvent::\n] client [") ||
      !takeNumber(report, at) || !take(report, at, " ") || !takeNumber(report, at) || !take(report, at, " : ") ||
      !takeNumber(report, at) || !take(report, at, "\n] ")) {
    return false;
  }
  if (take(report, at, "Unknown Exception\n")) {
    return at == report.size();
  }
  return take(report, at, "Exception [FaultTest:failure ") && takeNumber(report, at) && take(report, at, "\n") &&
         at == report.size();
}

}  // namespace

// A million throws (250,000 under ThreadSanitizer, 100,000 under
// AddressSanitizer; VEXUTIL_FAULT_THROWS overrides) by subscribers of four
// kinds, on events from two producers: every subscriber is still called for
// every event, the survivor sees every event in producer order, every
// printed report is whole, the last report printed is the last failure's,
// and memory does not grow (plain build) or leak (AddressSanitizer build).
TEST(ReliabilityFaults, MillionThrowsKeepDeliveryGoing) {
  startWithFreshManager();
  if (!kSanitized) {
    useOneArena();
  }
  constexpr long kThrowsPerEvent = 4;
  const long throwsWanted = countFromEnvironment("VEXUTIL_FAULT_THROWS", VEXUTIL_RELIABILITY_THROWS);
  const long eventsPerProducer = throwsWanted / kThrowsPerEvent / 2;
  const long events = 2 * eventsPerProducer;

  EventMgr& manager = *EventMgr::instance();
  StandardThrower standard;
  ValueThrower values;
  DeadlockThrower deadlock;
  UserThrower user;
  Survivor survivor;
  manager.subscribe("Fault", &standard, &StandardThrower::on);
  manager.subscribe("Fault", &values, &ValueThrower::on);
  manager.subscribe("Fault", &deadlock, &DeadlockThrower::on);
  manager.subscribe("Fault", &survivor, &Survivor::on);
  manager.subscribe("BaseEvent", &user, &UserThrower::on);

  ::testing::internal::CaptureStdout();
  // Warm-up: the first tenth, so that the queue, the report strings and the
  // allocator's caches have reached their working size.
  const long warmUp = eventsPerProducer / 10;
  auto produce = [&manager](int producer, long from, long to) {
    for (long number = from; number < to; ++number) {
      // Every 64th publish waits, which bounds the queue.
      manager.publish(FaultEvent(producer, number), number % 64 == 63);
    }
  };
  {
    std::thread first(produce, 0, 0, warmUp);
    std::thread second(produce, 1, 0, warmUp);
    first.join();
    second.join();
  }
  drainQueue();
  const std::size_t before = bytesInUse();
  {
    std::thread first(produce, 0, warmUp, eventsPerProducer);
    std::thread second(produce, 1, warmUp, eventsPerProducer);
    first.join();
    second.join();
  }
  drainQueue();
  // The final failure, from the main thread: its report is the last one.
  manager.publish(FaultEvent(2, 999999999), true);
  manager.publish(BaseEvent(), false);  // Prints it unless already printed.
  drainQueue();
  const std::size_t after = bytesInUse();
  const std::string printed = ::testing::internal::GetCapturedStdout();

  const long delivered = events + 1;
  EXPECT_EQ(standard.calls, delivered);
  EXPECT_EQ(values.calls, delivered);
  EXPECT_EQ(deadlock.calls, delivered);
  EXPECT_EQ(user.calls, delivered);
  EXPECT_EQ(survivor.calls, delivered);
  EXPECT_EQ(survivor.outOfOrder, 0);
  const long throws = standard.calls + values.calls + deadlock.calls + user.calls;
  EXPECT_GE(throws, throwsWanted - kThrowsPerEvent * 2);

  // Every printed report is whole (none interleaved with another).
  const std::string head = "DefaultEventMgr::deliver: event [";
  const std::size_t reports = countOccurrences(printed, head);
  EXPECT_GE(reports, 1U);
  std::size_t malformed = 0;
  std::string firstMalformed;
  for (std::size_t at = 0; at < printed.size();) {
    std::size_t next = printed.find(head, at + 1);
    if (next == std::string::npos) {
      next = printed.size();
    }
    const std::string report = printed.substr(at, next - at);
    if (!isWholeReport(report) && malformed++ == 0) {
      firstMalformed = report;
    }
    at = next;
  }
  EXPECT_EQ(malformed, 0U) << firstMalformed;
  const vexutil::eventmgr::ClientAdapter<UserThrower, FaultEvent> userClient(&user, &UserThrower::on);
  const std::string last = head + "VERSION 0\nTYPESLENGTH 2\nTYPES Fault::BaseEvent::\n] client [0 " +
                           std::to_string(userClient.getClassId()) + " : " +
                           std::to_string(userClient.getInstanceId()) +
                           "\n] Exception [FaultTest:failure 999999999\n";
  ASSERT_GE(printed.size(), last.size());
  EXPECT_EQ(printed.substr(printed.size() - last.size()), last);

  std::cout << "[ figures  ] throws=" << throws << " events=" << delivered << " reports printed=" << reports;
  if (!kSanitized) {
    std::cout << " heap in use before=" << before << " after=" << after;
    EXPECT_LT(after, before + kGrowthTolerance) << "the heap grew by " << (after - before) << " bytes";
  }
  std::cout << std::endl;
  shutDownManager();  // Before the subscribers go.
}

namespace {

// Copying it fails with std::bad_alloc while `explode` is set: a clone then
// fails half-way, after its memory was allocated.
struct Exploding {
  bool explode = false;
  std::string text = "partly copied text that needs an allocation of its own";
  Exploding() = default;
  Exploding(const Exploding& other) : explode(other.explode), text(other.text) {
    if (explode) {
      throw std::bad_alloc();
    }
  }
  Exploding& operator=(const Exploding&) = default;
};

class ExplodingEvent : public TestEvent {
 public:
  explicit ExplodingEvent(int payload) : TestEvent(payload) { member_.explode = true; }
  ExplodingEvent* clone() const override { return new ExplodingEvent(*this); }

 private:
  Exploding member_;
};

class HoldEvent : public BaseEvent {
 public:
  HoldEvent() : BaseEvent(Names{"Hold"}) {}
  HoldEvent* clone() const override { return new HoldEvent(*this); }
};

class NullCloneEvent : public TestEvent {
 public:
  explicit NullCloneEvent(int payload) : TestEvent(payload) {}
  NullCloneEvent* clone() const override { return nullptr; }
};

}  // namespace

// While the dispatcher is held and 100 accepted events wait, 4,000 publishes
// whose clone fails (std::bad_alloc half-way through the copy, or null),
// asynchronous and synchronous, from two threads: each bad_alloc reaches its
// publisher, none waits for the held dispatcher, nothing is queued, nothing
// is reported, and the accepted events arrive afterwards, in order.
TEST(ReliabilityFaults, FailingClonesUnderLoadQueueNothing) {
  startWithFreshManager();
  if (!kSanitized) {
    useOneArena();
  }
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  Gate holding;
  Gate release;
  Recorder blocker;
  blocker.setAction([&](const BaseEvent&) {
    holding.open();
    EXPECT_TRUE(release.wait());
  });
  manager.subscribe("Hold", &blocker, &Recorder::onBase);
  manager.publish(HoldEvent(), false);
  ASSERT_TRUE(holding.wait());
  constexpr int kAccepted = 100;
  for (int i = 1; i <= kAccepted; ++i) {
    manager.publish(TestEvent(i), false);
  }
  ASSERT_EQ(manager.getPendingEventCount(), static_cast<unsigned>(kAccepted));

  ::testing::internal::CaptureStdout();
  const std::size_t before = bytesInUse();
  constexpr int kAttemptsPerThread = 1000;
  std::atomic<int> badAllocs{0};
  std::atomic<int> nullsReturned{0};
  Counter finished;
  auto attempt = [&] {
    for (int i = 0; i < kAttemptsPerThread; ++i) {
      const bool synchronous = i % 2 == 0;
      try {
        manager.publish(ExplodingEvent(-1 - i), synchronous);
      } catch (const std::bad_alloc&) {
        ++badAllocs;
      }
      manager.publish(NullCloneEvent(-1 - i), synchronous);
      ++nullsReturned;
    }
    finished.add();
  };
  std::thread first(attempt);
  std::thread second(attempt);
  // A publish that waited for the held dispatcher would never finish.
  EXPECT_TRUE(finished.waitFor(2));
  EXPECT_EQ(manager.getPendingEventCount(), static_cast<unsigned>(kAccepted));
  const std::size_t after = bytesInUse();
  release.open();
  first.join();
  second.join();
  drainQueue();
  manager.publish(BaseEvent(), false);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

  EXPECT_EQ(badAllocs.load(), 2 * kAttemptsPerThread);
  EXPECT_EQ(nullsReturned.load(), 2 * kAttemptsPerThread);
  std::vector<int> expected;
  for (int i = 1; i <= kAccepted; ++i) {
    expected.push_back(i);
  }
  EXPECT_EQ(recorder.payloads(), expected);
  if (!kSanitized) {
    EXPECT_LT(after, before + kGrowthTolerance);
  }
  shutDownManager();
}

namespace {

// A subscriber that holds the dispatcher until the manager's destruction
// has asked it to stop: by then the queue has been taken.
void holdUntilStopRequested(Gate& holding) {
  holding.open();
  EventDispatcher* const dispatcher = EventDispatcher::current();
  while (!dispatcher->isStopRequested()) {
    std::this_thread::yield();
  }
}

}  // namespace

// The manager destroyed, 1,000 times in one process (500 under the
// sanitizers), while its dispatcher is held inside a delivery, 20 events are
// queued and 8 threads wait in every kind of request (synchronous publish
// in both forms, subscribe in the single, list and two-list forms,
// unSubscribe in the single, list and two-list forms). Interleaving forced
// each time: every request is queued (the pending count says so) before
// the shutdown takes the queue. Every requester returns, no queued event and
// no request is delivered, no thread is left, and memory does not grow.
TEST(ReliabilityFaults, ShutdownWithWaitersAndQueuedEventsRepeatedly) {
  startWithFreshManager();
  if (!kSanitized) {
    useOneArena();
  }
  const long cycles = countFromEnvironment("VEXUTIL_SHUTDOWN_CYCLES", kSanitized ? 500 : 1000);
  constexpr int kQueued = 20;
  constexpr int kRequesters = 8;
  std::size_t before = 0;
  long requestsReleased = 0;
  for (long cycle = 0; cycle < cycles; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    if (cycle > 0) {
      restartManager();
    }
    if (cycle == 10) {
      before = bytesInUse();
    }
    // Subscribers outlive the manager: declared before it is created.
    Gate holding;
    Recorder blocker;
    blocker.setAction([&holding](const BaseEvent&) { holdUntilStopRequested(holding); });
    Recorder subscribed;
    Recorder late;
    EventMgr& manager = *EventMgr::instance();
    manager.subscribe("Hold", &blocker, &Recorder::onBase);
    manager.subscribe(Names{"TestEvent", "Queued"},
                      EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&subscribed, &Recorder::onTest)));
    manager.subscribe(Names{"Edit"}, Names{"Commit"},
                      EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&subscribed, &Recorder::onTest)));
    manager.publish(HoldEvent(), false);
    ASSERT_TRUE(holding.wait());
    for (int i = 0; i < kQueued; ++i) {
      manager.publish(TestEvent(i), false);
    }
    const EventMgr::ClientPtr lateClient(new ClientAdapter<Recorder, TestEvent>(&late, &Recorder::onTest));
    const EventMgr::ClientPtr subscribedClient(
        new ClientAdapter<Recorder, TestEvent>(&subscribed, &Recorder::onTest));
    Counter returned;
    std::vector<std::thread> requesters;
    for (int kind = 0; kind < kRequesters; ++kind) {
      requesters.emplace_back([&, kind] {
        switch (kind) {
          case 0:
            manager.publish(TestEvent(100), true);
            break;
          case 1:
            manager.publish(TestEvent(101));
            break;
          case 2:
            manager.subscribe("TestEvent", lateClient);
            break;
          case 3:
            manager.subscribe(Names{"TestEvent", "Late", "Later"}, lateClient);
            break;
          case 4:
            manager.subscribe(Names{"Edit", "Late"}, Names{"Commit", "Later"}, lateClient);
            break;
          case 5:
            manager.unSubscribe("Queued", subscribedClient);
            break;
          case 6:
            manager.unSubscribe(Names{"TestEvent", "Queued", "Other"}, subscribedClient);
            break;
          default:
            manager.unSubscribe(Names{"Edit"}, Names{"Commit"}, subscribedClient);
            break;
        }
        returned.add();
      });
    }
    while (manager.getPendingEventCount() < static_cast<unsigned>(kQueued + kRequesters)) {
      std::this_thread::yield();
    }
    ASSERT_EQ(manager.getPendingEventCount(), static_cast<unsigned>(kQueued + kRequesters));
    shutDownManager();
    EXPECT_TRUE(returned.waitFor(kRequesters));
    for (std::thread& requester : requesters) {
      requester.join();
    }
    requestsReleased += kRequesters;
    EXPECT_FALSE(vexutil::eventmgr::detail::isDefaultManagerCreated());
    EXPECT_EQ(blocker.count(), 1U);
    EXPECT_EQ(subscribed.count(), 0U);
    EXPECT_EQ(late.count(), 0U);
    EXPECT_EQ(EventMgr::instance()->getSubscriptionCount(), 0U);
    if (::testing::Test::HasFailure()) {
      break;
    }
  }
  const std::size_t after = bytesInUse();
  std::cout << "[ figures  ] shutdown cycles=" << cycles << " requesters released=" << requestsReleased
            << " queued events dropped=" << cycles * kQueued;
  if (!kSanitized) {
    std::cout << " heap in use at cycle 10=" << before << " at the end=" << after;
    EXPECT_LT(after, before + kGrowthTolerance);
  }
  std::cout << std::endl;
}
