// SPDX-License-Identifier: MIT
// Functions handed from the dispatcher thread to the main thread, or to a
// thread that waits for the dispatcher.
#include <pthread.h>
#include <time.h>

#include "UnitTest.h"

using detail::isDefaultManagerCreated;

namespace {
// Puts `work` into the hand-off slot as if a subscriber had handed it off.
void store(boost::function0<void> work) {
  boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
  ToDoAdapter::toDoFunc_.swap(work);
}

const ToDoAdapter& pump() { return dynamic_cast<const ToDoAdapter&>(*EventMgr::instance()); }
}  // namespace

// Off the dispatcher, work runs at once on the calling thread, exceptions included; empty work creates nothing.
TEST(ToDoAdapter, OffTheDispatcherTheCallerRunsTheWork) {
  ToDoAdapter::runOnceOnMainThreadImpl(boost::function0<void>());
  EXPECT_FALSE(isDefaultManagerCreated());
  ThreadId ranOn;
  ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn = ThreadId::self(); });
  EXPECT_EQ(ranOn, ThreadId::self());
  EXPECT_TRUE(isDefaultManagerCreated());
  ThreadId worker;
  std::thread([&] {
    worker = ThreadId::self();
    ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn = ThreadId::self(); });
  }).join();
  EXPECT_EQ(ranOn, worker);
  EXPECT_THROW(ToDoAdapter::runOnceOnMainThreadImpl([] { throw std::logic_error("x"); }), std::logic_error);
  EXPECT_FALSE(handOffPending());
}

// From the dispatcher, work runs on the thread waiting in a synchronous publish, or else on a pumping main loop.
TEST(ToDoAdapter, HandOffRunsOnAWaitingOrPumpingThread) {
  std::vector<ThreadId> ranOn;
  Recorder subscriber;  // Hands work off from inside its delivery.
  subscriber.setAction([&ranOn](const BaseEvent&) {
    ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn.push_back(ThreadId::self()); });
  });
  EventMgr::instance()->subscribe("TestEvent", &subscriber, &Recorder::onTest);
  EventMgr::instance()->publish(TestEvent(), true);
  EventMgr::instance()->publish(TestEvent(), false);
  EXPECT_TRUE(eventually([&] {
    pump().invokeOnceOnMainThread();
    return subscriber.count() == 2;
  }));
  EXPECT_EQ(ranOn, std::vector<ThreadId>(2, ThreadId::self()));
  EXPECT_NE(subscriber.deliveries().front().thread, ThreadId::self());
}

// A pending function runs once: a second pump while the first one runs it finds the slot empty.
// Forced order: a worker takes the function, which waits on a gate while the main thread pumps.
TEST(ToDoAdapter, ASecondPumpFindsTheTakenFunctionGone) {
  std::atomic<int> runs{0};
  Gate running;
  Gate finish;
  store([&] {
    ++runs;
    running.open();
    EXPECT_TRUE(finish.wait());
  });
  std::thread first([] { pump().invokeOnceOnMainThread(); });
  EXPECT_TRUE(running.wait());
  pump().invokeOnceOnMainThread();
  finish.open();
  first.join();
  EXPECT_EQ(runs.load(), 1);
}

// Work that throws on the pumping thread propagates there and leaves the dispatcher blocked until shutdown,
// using no processor time meanwhile (measured on the dispatcher thread's own CPU clock over a second).
TEST(ToDoAdapter, ThrowingWorkPropagatesAndLeavesDispatcherBlockedAndIdle) {
  EventMgr& manager = *EventMgr::instance();
  std::atomic<pthread_t> dispatcher{};
  Recorder subscriber;
  subscriber.setAction([&dispatcher](const BaseEvent&) {
    dispatcher = pthread_self();
    ToDoAdapter::runOnceOnMainThreadImpl([] { throw std::runtime_error("work failed"); });
  });
  manager.subscribe("TestEvent", &subscriber, &Recorder::onTest);
  EXPECT_THROW(manager.publish(TestEvent(), true), std::runtime_error);
  clockid_t clock{};
  ASSERT_EQ(pthread_getcpuclockid(dispatcher.load(), &clock), 0);
  const auto cpuSeconds = [clock] {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  };
  const double cpuBefore = cpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(1));  // The span measured, not a synchronisation.
  EXPECT_LT(cpuSeconds() - cpuBefore, 0.05) << "the abandoned dispatcher uses the processor";
  manager.publish(InputRequestEvent(), false);
  EXPECT_EQ(manager.getPendingEventCount(), 1U);
  EXPECT_EQ(subscriber.count(), 0U);
  shutDownManager();
  EXPECT_EQ(subscriber.count(), 1U);
}

// A pending record replaced by the dispatcher's own hand-off before anyone took it is never run.
TEST(ToDoAdapter, ReplacedRecordIsNeverRun) {
  EventMgr& manager = *EventMgr::instance();
  std::atomic<int> staleRuns{0};
  std::atomic<bool> freshRan{false};
  Recorder recorder;
  recorder.setAction(
      [&freshRan](const BaseEvent&) { ToDoAdapter::runOnceOnMainThreadImpl([&freshRan] { freshRan = true; }); });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  struct Stale {
    std::atomic<int>* runs;
    void operator()() const { ++*runs; }
  };
  store(Stale{&staleRuns});
  manager.publish(TestEvent(), false);
  // Nobody pumps until the dispatcher's record has replaced the stale one.
  EXPECT_TRUE(eventually([] {
    boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
    return !ToDoAdapter::toDoFunc_.empty() && ToDoAdapter::toDoFunc_.target<Stale>() == nullptr;
  }));
  pump().invokeOnceOnMainThread();
  EXPECT_TRUE(recorder.waitFor(1));
  EXPECT_TRUE(freshRan.load());
  EXPECT_EQ(staleRuns.load(), 0);
}
