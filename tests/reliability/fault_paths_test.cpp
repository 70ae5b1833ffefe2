// Fault paths that once broke the manager: allocations that fail in the
// middle of an operation, on the caller's thread or on the dispatcher thread,
// and a shutdown that races a caller holding the manager's pointer. Each test
// forces its interleaving or its failure; the sanitizer builds catch a use
// after free or a leak, the assertions a manager left inconsistent.
#include <pthread.h>

#include <filesystem>
#include <iterator>
#include <new>

#include "FailingAllocation.h"
#include "Instance.h"
#include "UnitTest.h"

namespace {

// The dispatcher thread, as pthread_self() reports it there.
pthread_t dispatcherThread() {
  struct Probe {
    pthread_t thread{};
    void on(const BaseEvent& /*event*/) { thread = pthread_self(); }
  } probe;
  EventMgr& manager = *EventMgr::instance();
  manager.subscribe("Probe", &probe, &Probe::on);
  manager.publish(NamedEvent("Probe", 0), true);
  manager.unSubscribe("Probe", &probe, &Probe::on);
  return probe.thread;
}

std::size_t threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Runs `attempt` with the nth allocation of `thread` failing, for n = 1, 2,
// ... until an attempt runs without the failure firing. After each failed
// attempt `check(n, threw)` is called, `threw` telling whether the attempt
// threw std::bad_alloc. Returns the number of failures survived.
template <typename Attempt, typename Check>
unsigned long failEachAllocationIn(pthread_t thread, Attempt attempt, Check check) {
  for (unsigned long n = 1;; ++n) {
    bool threw = false;
    ScopedAllocationFailure failure(thread, n);
    try {
      attempt();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    if (!failure.disarm()) {
      EXPECT_FALSE(threw);
      return n - 1;
    }
    check(n, threw);
    if (::testing::Test::HasFailure()) {
      return n;
    }
  }
}

}  // namespace

// A subscription that fails on the dispatcher thread throws to the caller and leaves no half-made table entry.
TEST(FaultPaths, FailedSubscriptionOnDispatcherLeavesTableWhole) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  const unsigned long survived = failEachAllocationIn(
      dispatcherThread(), [&] { manager.subscribe("Fresh", clientFor(recorder)); },
      [&](unsigned long n, bool threw) {
        EXPECT_TRUE(threw) << "allocation " << n;
        EXPECT_EQ(manager.getSubscriptionCount(), 0U) << "allocation " << n;
        manager.publish(NamedEvent("Fresh", 1), true);  // Used to dereference a null entry.
        EXPECT_EQ(recorder.count(), 0U);
      });
  EXPECT_GT(survived, 0U);
  manager.publish(NamedEvent("Fresh", 2), true);
  EXPECT_EQ(recorder.payloads(), std::vector<int>{2});
  manager.unSubscribe("Fresh", clientFor(recorder));
}

// A combined subscription whose mailer fails part-way, or whose removal fails, leaves no subscription behind.
TEST(FaultPaths, CombinedSubscriptionNeverOutlivesItsMailer) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  const Names delayed{"Edit", "Move"};
  const Names triggers{"Commit"};
  const auto publishAll = [&manager](int payload) {
    for (const char* type : {"Edit", "Move", "Commit"}) {
      manager.publish(NamedEvent(type, payload), true);
    }
  };
  const unsigned long madePartly = failEachAllocationIn(
      pthread_self(), [&] { manager.subscribe(delayed, triggers, clientFor(recorder)); },
      [&](unsigned long n, bool threw) {
        EXPECT_TRUE(threw) << "allocation " << n;
        EXPECT_EQ(manager.getSubscriptionCount(), 0U) << "allocation " << n;
        publishAll(0);  // Used to reach the freed mailer.
      });
  EXPECT_GT(madePartly, 3U);  // Failures after the first name was subscribed.
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);
  // The removal withdraws through the mailer's destructor, which must not give
  // up on a failure: either the call throws with the mailer still in place,
  // or the mailer is gone with all of its subscriptions.
  failEachAllocationIn(
      pthread_self(), [&] { manager.unSubscribe(delayed, triggers, clientFor(recorder)); },
      [&](unsigned long n, bool threw) {
        EXPECT_EQ(manager.getSubscriptionCount(), threw ? 3U : 0U) << "allocation " << n;
        publishAll(0);
      });
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  publishAll(1);
  const std::vector<int> payloads = recorder.payloads();
  EXPECT_EQ(std::count(payloads.begin(), payloads.end(), 1), 0);
}

// Subscribing an equal combined subscription again makes no second mailer, even for a moment.
TEST(FaultPaths, EqualCombinedSubscriptionIsFoundBeforeAnythingIsSubscribed) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  const Names delayed{"Edit"};
  const Names triggers{"Commit"};
  manager.subscribe(delayed, triggers, clientFor(recorder));
  manager.publish(NamedEvent("Edit", 1), false);
  {
    // With the dispatcher held, a subscribe that queued anything could not return.
    DispatcherHold hold;
    Gate returned;
    std::thread again([&] {
      manager.subscribe(Names{"Edit", "Edit"}, triggers, clientFor(recorder));
      returned.open();
    });
    EXPECT_TRUE(returned.wait());
    EXPECT_EQ(manager.getPendingEventCount(), 0U);
    again.join();
  }
  manager.publish(NamedEvent("Commit", 2), true);
  EXPECT_EQ(recorder.labels(), std::vector<std::string>{"Edit1"});
  manager.unSubscribe(delayed, triggers, clientFor(recorder));
}

// A caller that took the manager's pointer just before the shutdown finds every call a harmless no-op.
TEST(FaultPaths, PointerTakenBeforeShutdownStaysSafe) {
  EventMgr* const taken = EventMgr::instance();
  Recorder recorder;
  taken->subscribe("TestEvent", clientFor(recorder));
  // The interleaving that freed the manager under the caller: instance() has
  // returned, then the owner lets go, then the caller calls.
  shutDownManager();
  ASSERT_NE(EventMgr::instance(), taken);
  taken->publish(TestEvent(1), false);
  taken->publish(TestEvent(2), true);
  taken->subscribe("TestEvent", clientFor(recorder));
  taken->subscribe(Names{"Edit"}, Names{"Commit"}, clientFor(recorder));
  taken->unSubscribe("TestEvent", clientFor(recorder));
  taken->unSubscribe(Names{"Edit"}, Names{"Commit"}, clientFor(recorder));
  EXPECT_EQ(taken->getSubscriptionCount(), 0U);
  EXPECT_EQ(taken->getPendingEventCount(), 0U);
  EXPECT_FALSE(taken->isDispatchOrMainThread());
  EXPECT_EQ(recorder.count(), 0U);
}

// Publishers that keep calling through instance() while the owner lets go never touch freed memory.
TEST(FaultPaths, ShutdownRacingPublishersIsSafe) {
  Counter published;
  std::vector<std::thread> publishers;
  publishers.reserve(2);
  for (int i = 0; i < 2; ++i) {
    publishers.emplace_back([&published] {
      for (int round = 0; round < 20000; ++round) {
        EventMgr::instance()->publish(TestEvent(round), round % 100 == 0);
        published.add();
      }
    });
  }
  ASSERT_TRUE(published.waitFor(200));  // Both are well under way.
  shutDownManager();
  for (std::thread& publisher : publishers) {
    publisher.join();
  }
  EXPECT_EQ(published.value(), 40000U);
}

// Creating the manager runs out of memory at every step in turn: it throws, leaves no thread, and the next call works.
TEST(FaultPaths, FailedCreationLeavesNothingAndIsTriedAgain) {
  EventMgr::instance();
  shutDownManager();
  restartManager();
  const std::size_t threadsBefore = threadCount();
  const unsigned long survived = failEachAllocationIn(
      pthread_self(), [] { EventMgr::instance(); },
      [threadsBefore](unsigned long n, bool threw) {
        EXPECT_TRUE(threw) << "allocation " << n;
        EXPECT_FALSE(vexutil::eventmgr::detail::isDefaultManagerCreated()) << "allocation " << n;
        EXPECT_TRUE(eventually([threadsBefore] { return threadCount() == threadsBefore; })) << "allocation " << n;
      });
  EXPECT_GT(survived, 3U);
  Recorder recorder;
  defaultManager().subscribe("TestEvent", clientFor(recorder));
  defaultManager().publish(TestEvent(7), true);
  EXPECT_EQ(recorder.payloads(), std::vector<int>{7});
  defaultManager().unSubscribe("TestEvent", clientFor(recorder));
}
