// Requests that wait for the dispatcher: from other threads, in parallel,
// and while the manager goes away.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "DefaultEventMgr.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/eventmgr/ToDoAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::EventMgr;
using namespace vexutil::testing_support;

// Subscriptions from worker threads are in force when the call returns.
TEST(SynchronousRequests, SubscribeFromWorkersIsInForceOnReturn) {
  EventMgr& manager = *EventMgr::instance();
  constexpr int kWorkers = 8;
  std::vector<Recorder> recorders(kWorkers);
  std::vector<std::thread> workers;
  for (int i = 0; i < kWorkers; ++i) {
    workers.emplace_back([&manager, &recorders, i] {
      Recorder& mine = recorders[static_cast<std::size_t>(i)];
      manager.subscribe("TestEvent", &mine, &Recorder::onTest);
      // In force now: a synchronous publish from this thread reaches it.
      manager.publish(TestEvent(i), true);
      EXPECT_GE(mine.count(), 1U);
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_EQ(manager.getSubscriptionCount(), static_cast<unsigned>(kWorkers));
}

// A synchronous publish waits for its own delivery, not just for its turn in the queue.
TEST(SynchronousRequests, SynchronousPublishReturnsAfterItsDelivery) {
  EventMgr& manager = *EventMgr::instance();
  Recorder slow;
  std::atomic<bool> finished{false};
  slow.setAction([&finished](const BaseEvent&) {
    std::this_thread::yield();
    finished = true;
  });
  manager.subscribe("TestEvent", &slow, &Recorder::onTest);
  for (int i = 0; i < 50; ++i) {
    finished = false;
    manager.publish(TestEvent(i));
    ASSERT_TRUE(finished.load());
  }
}

// Each poll prints a pending report on the waiting thread.
TEST(SynchronousRequests, WaitingThreadPrintsPendingReport) {
  EventMgr& manager = *EventMgr::instance();
  struct Thrower {
    void onTest(const TestEvent&) { throw 3; }
  } thrower;
  Recorder blocker;
  // Holds this request's own delivery until a poll has taken the report.
  blocker.setAction([](const BaseEvent&) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (defaultManager().hasPendingReport() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
  });
  manager.subscribe("TestEvent", &thrower, &Thrower::onTest);
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  ::testing::internal::CaptureStdout();
  manager.publish(TestEvent(), false);  // Fails on the dispatcher.
  manager.publish(vexutil::inputreqevt::InputRequestEvent(), true);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos) << printed;
  EXPECT_FALSE(defaultManager().hasPendingReport());
}

// A manager destroyed while requests wait releases them all.
TEST(SynchronousRequests, ShutdownReleasesAllWaiters) {
  EventMgr& manager = *EventMgr::instance();
  Recorder blocker;
  // Holds the dispatcher until the shutdown has taken the queue.
  Gate holding;
  blocker.setAction([&holding](const BaseEvent&) {
    holding.open();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!vexutil::eventmgr::EventDispatcher::current()->isStopRequested() &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
  });
  manager.subscribe("TestEvent", &blocker, &Recorder::onTest);
  manager.publish(TestEvent(), false);
  ASSERT_TRUE(holding.wait());  // From here on the queue only grows.
  constexpr int kWaiters = 6;
  Counter returned;
  std::vector<std::thread> waiters;
  std::vector<Recorder> never(kWaiters);
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&, i] {
      if (i % 2 == 0) {
        manager.publish(TestEvent(i), true);
      } else {
        manager.subscribe("Other", &never[static_cast<std::size_t>(i)], &Recorder::onBase);
      }
      returned.add();
    });
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (manager.getPendingEventCount() < kWaiters && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_EQ(manager.getPendingEventCount(), static_cast<unsigned>(kWaiters));
  shutDownManager();
  ASSERT_TRUE(returned.waitFor(kWaiters));
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(blocker.count(), 1U);
}
