// Functions handed from the dispatcher thread to a waiting thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "Corvane/System/ThreadId.h"
#include "Instance.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

using Corvane::System::ThreadId;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::ToDoAdapter;
using namespace vexutil::testing_support;

namespace {
bool slotIsEmpty() {
  boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
  return ToDoAdapter::toDoFunc_.empty();
}
}  // namespace

// An empty function returns at once and does not create the manager.
TEST(ToDoAdapter, EmptyFunctionTouchesNothing) {
  ToDoAdapter::runOnceOnMainThreadImpl(boost::function0<void>());
  EXPECT_FALSE(vexutil::eventmgr::detail::isDefaultManagerCreated());
  EXPECT_TRUE(slotIsEmpty());
}

// Off the dispatcher thread the work runs at once on the calling thread; its exceptions reach the caller.
TEST(ToDoAdapter, OffTheDispatcherTheCallerRunsTheWork) {
  ThreadId ranOn;
  ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn = ThreadId::self(); });
  EXPECT_EQ(ranOn, ThreadId::self());
  EXPECT_TRUE(vexutil::eventmgr::detail::isDefaultManagerCreated());

  ThreadId worker;
  ThreadId workerRanOn;
  std::thread([&] {
    worker = ThreadId::self();
    ToDoAdapter::runOnceOnMainThreadImpl([&workerRanOn] { workerRanOn = ThreadId::self(); });
  }).join();
  EXPECT_EQ(workerRanOn, worker);
  EXPECT_THROW(ToDoAdapter::runOnceOnMainThreadImpl([] { throw std::logic_error("x"); }), std::logic_error);
  EXPECT_TRUE(slotIsEmpty());
}

// From the dispatcher, the work runs on the thread that waits in a synchronous call; both return.
TEST(ToDoAdapter, HandOffRunsOnTheWaitingThread) {
  EventMgr& manager = *EventMgr::instance();
  ThreadId ranOn;
  Recorder recorder;
  recorder.setAction([&ranOn](const BaseEvent&) {
    ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn = ThreadId::self(); });
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(), true);  // Waits, and pumps the hand-off meanwhile.
  EXPECT_EQ(ranOn, ThreadId::self());
  EXPECT_EQ(recorder.count(), 1U);
  EXPECT_NE(recorder.deliveries().front().thread, ThreadId::self());
}

// A host main loop that pumps invokeOnceOnMainThread serves hand-offs made while it does not wait.
TEST(ToDoAdapter, HostMainLoopServesHandOffs) {
  EventMgr& manager = *EventMgr::instance();
  const ToDoAdapter& pump = dynamic_cast<const ToDoAdapter&>(manager);
  std::atomic<int> served{0};
  ThreadId ranOn;
  Recorder recorder;
  recorder.setAction([&](const BaseEvent&) {
    ToDoAdapter::runOnceOnMainThreadImpl([&] {
      ranOn = ThreadId::self();
      ++served;
    });
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(), false);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (recorder.count() == 0 && std::chrono::steady_clock::now() < deadline) {
    pump.invokeOnceOnMainThread();
    std::this_thread::yield();
  }
  EXPECT_EQ(served.load(), 1);
  EXPECT_EQ(ranOn, ThreadId::self());
}

// Two threads pumping one pending record run it exactly once; an empty slot does nothing.
TEST(ToDoAdapter, ConcurrentPumpsRunARecordOnce) {
  const ToDoAdapter& pump = dynamic_cast<const ToDoAdapter&>(*EventMgr::instance());
  pump.invokeOnceOnMainThread();  // Empty: nothing happens.
  std::atomic<int> runs{0};
  for (int round = 0; round < 100; ++round) {
    {
      boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
      ToDoAdapter::toDoFunc_ = [&runs] { ++runs; };
    }
    Gate start;
    std::thread a([&] {
      ASSERT_TRUE(start.wait());
      pump.invokeOnceOnMainThread();
    });
    std::thread b([&] {
      ASSERT_TRUE(start.wait());
      pump.invokeOnceOnMainThread();
    });
    start.open();
    a.join();
    b.join();
    ASSERT_EQ(runs.load(), round + 1);
  }
}

// A pending record that is replaced before anyone took it is never run.
TEST(ToDoAdapter, ReplacedRecordIsNeverRun) {
  EventMgr& manager = *EventMgr::instance();
  const ToDoAdapter& pump = dynamic_cast<const ToDoAdapter&>(manager);
  std::atomic<bool> freshRan{false};
  Recorder recorder;
  recorder.setAction([&freshRan](const BaseEvent&) {
    ToDoAdapter::runOnceOnMainThreadImpl([&freshRan] { freshRan = true; });
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  // Nobody pumps from here until the dispatcher has replaced the stale record.
  struct Stale {
    std::atomic<int>* runs;
    void operator()() const { ++*runs; }
  };
  std::atomic<int> staleRuns{0};
  {
    boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
    ToDoAdapter::toDoFunc_ = Stale{&staleRuns};
  }
  manager.publish(TestEvent(), false);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!freshRan && std::chrono::steady_clock::now() < deadline) {
    // Only pump once the dispatcher's own record is in the slot.
    bool handOffStored = false;
    {
      boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
      handOffStored = !ToDoAdapter::toDoFunc_.empty() && ToDoAdapter::toDoFunc_.target<Stale>() == nullptr;
    }
    if (handOffStored) {
      pump.invokeOnceOnMainThread();
    }
    std::this_thread::yield();
  }
  EXPECT_TRUE(freshRan.load());
  EXPECT_TRUE(recorder.waitFor(1));  // The delivery is over before the recorder goes.
  EXPECT_EQ(staleRuns.load(), 0);
}

// Work that throws on the pumping thread propagates there, and the dispatcher stays blocked.
TEST(ToDoAdapter, ThrowingWorkPropagatesAndLeavesDispatcherBlocked) {
  EventMgr& manager = *EventMgr::instance();
  Recorder handsOff;
  handsOff.setAction([](const BaseEvent&) {
    ToDoAdapter::runOnceOnMainThreadImpl([] { throw std::runtime_error("work failed"); });
  });
  Recorder later;
  manager.subscribe("TestEvent", &handsOff, &Recorder::onTest);
  manager.subscribe("InputRequestEvent", &later, &Recorder::onBase);
  EXPECT_THROW(manager.publish(TestEvent(), true), std::runtime_error);
  manager.publish(TestEvent(), false);
  EXPECT_EQ(manager.getPendingEventCount(), 1U);  // The dispatcher takes nothing more.
  EXPECT_EQ(handsOff.count(), 0U);                // Still inside the first delivery.
  // Shutting the manager down lets the blocked dispatcher go.
  shutDownManager();
  EXPECT_EQ(handsOff.count(), 1U);
}
