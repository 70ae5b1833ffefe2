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
// From the dispatcher, work runs on the thread waiting in a synchronous publish, or else on a pumping main loop.
TEST(ToDoAdapter, WorkRunsOnTheCallerOrOnAWaitingOrPumpingThread) {
  ToDoAdapter::runOnceOnMainThreadImpl(boost::function0<void>());
  EXPECT_FALSE(isDefaultManagerCreated());
  std::vector<ThreadId> ranOn;
  const auto handOff = [&ranOn] {
    ToDoAdapter::runOnceOnMainThreadImpl([&ranOn] { ranOn.push_back(ThreadId::self()); });
  };
  handOff();
  EXPECT_TRUE(isDefaultManagerCreated());
  ThreadId worker;
  std::thread([&] {
    worker = ThreadId::self();
    handOff();
  }).join();
  EXPECT_THROW(ToDoAdapter::runOnceOnMainThreadImpl([] { throw std::logic_error("x"); }), std::logic_error);
  EXPECT_FALSE(handOffPending());
  Recorder subscriber;  // Hands work off from inside its delivery.
  subscriber.setAction([&handOff](const BaseEvent&) { handOff(); });
  EventMgr::instance()->subscribe("TestEvent", &subscriber, &Recorder::onTest);
  EventMgr::instance()->publish(TestEvent(), true);
  EventMgr::instance()->publish(TestEvent(), false);
  EXPECT_TRUE(eventually([&] {
    pump().invokeOnceOnMainThread();
    return subscriber.count() == 2;
  }));
  EXPECT_EQ(ranOn, (std::vector<ThreadId>{ThreadId::self(), worker, ThreadId::self(), ThreadId::self()}));
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

// A record replaced by the dispatcher's own hand-off before anyone took it is never run. A pending function
// runs once: a second pump while the first one runs it finds the slot empty (a function without the
// dispatcher's run-once ticket, so that only the slot can keep it from running twice). Forced order: a worker
// takes the function, which waits on a gate while the main thread pumps.
TEST(ToDoAdapter, ReplacedRecordNeverRunsAndATakenOneRunsOnce) {
  std::atomic<int> staleRuns{0};
  std::atomic<bool> freshRan{false};
  Recorder recorder;
  recorder.setAction(
      [&freshRan](const BaseEvent&) { ToDoAdapter::runOnceOnMainThreadImpl([&freshRan] { freshRan = true; }); });
  EventMgr::instance()->subscribe("TestEvent", &recorder, &Recorder::onTest);
  struct Stale {
    std::atomic<int>* runs;
    void operator()() const { ++*runs; }
  };
  store(Stale{&staleRuns});
  EventMgr::instance()->publish(TestEvent(), false);
  // Nobody pumps until the dispatcher's record has replaced the stale one.
  EXPECT_TRUE(eventually([] {
    boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
    return !ToDoAdapter::toDoFunc_.empty() && ToDoAdapter::toDoFunc_.target<Stale>() == nullptr;
  }));
  pump().invokeOnceOnMainThread();
  EXPECT_TRUE(recorder.waitFor(1));
  EXPECT_TRUE(freshRan.load());
  EXPECT_EQ(staleRuns.load(), 0);
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
