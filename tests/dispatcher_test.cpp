// SPDX-License-Identifier: MIT
// The dispatcher thread: delivery on it, queue order, restart after a
// failure, and the manager's shutdown.
#include <deque>

#include "DispatchQueue.h"
#include "EventDispatcher.h"
#include "UnitTest.h"
#include "YieldWatch.h"

// Published events reach subscribers as clones, in publishing order, on the one dispatcher thread. An
// asynchronous publish returns while the dispatcher is held, a synchronous one after its delivery; that thread
// and the main one are "dispatch or main", others are not. An unSubscribe from another thread overtakes the
// events queued before it. Forced order: two events queue behind a held dispatcher, then the request.
TEST(EventDispatcher, DeliversQueuedClonesInOrderOnItsThread) {
  DefaultEventMgr& manager = defaultManager();
  Recorder recorder;
  Recorder overtaken;
  std::atomic<bool> dispatchOrMain{false};
  recorder.setAction([&](const BaseEvent&) { dispatchOrMain = manager.isDispatchOrMainThread(); });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.subscribe("TestEvent", &overtaken, &Recorder::onTest);
  const TestEvent published(3);
  std::thread unsubscriber;
  {
    DispatcherHold hold;
    manager.publish(TestEvent(1), false);  // A publish that waited would never return here.
    manager.publish(TestEvent(2), false);
    unsubscriber = std::thread([&] { manager.unSubscribe("TestEvent", &overtaken, &Recorder::onTest); });
    EXPECT_TRUE(eventually([&] { return manager.getPendingEventCount() == 3; }));  // The request is queued.
  }
  unsubscriber.join();
  manager.publish(published, true);
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(overtaken.count(), 0U);
  for (const Delivery& delivery : recorder.deliveries()) {
    EXPECT_EQ(delivery.thread, recorder.deliveries().front().thread);
    EXPECT_NE(delivery.thread, ThreadId::self());
    EXPECT_NE(delivery.address, &published);
  }
  EXPECT_TRUE(dispatchOrMain.load() && manager.isDispatchOrMainThread());
  std::thread([&] { dispatchOrMain = manager.isDispatchOrMainThread(); }).join();
  EXPECT_FALSE(dispatchOrMain.load());
}

// An event whose description cannot be written, so no failure report about
// it can be composed.
struct UndescribableEvent : TestEvent {
  UndescribableEvent* clone() const override { return new UndescribableEvent(*this); }
  std::ostream& writeDescription(std::ostream& /*out*/) const override { throw std::runtime_error("no description"); }
};

// A report that cannot be composed is dropped: delivery goes on to the next client, and the thread stays. A
// dispatcher thread that has ended is replaced, with a new id, at the next publish.
TEST(EventDispatcher, UncomposableReportIsDroppedAndAnEndedThreadIsReplaced) {
  DefaultEventMgr& manager = defaultManager();
  Recorder thrower;
  Recorder recorder;
  thrower.setAction([](const BaseEvent&) { throw 1; });
  manager.subscribe("TestEvent", &thrower, &Recorder::onTest);
  manager.subscribe("BaseEvent", &recorder, &Recorder::onTest);
  manager.publish(UndescribableEvent(), true);
  EXPECT_EQ(recorder.count(), 1U);
  EXPECT_FALSE(manager.hasPendingReport());
  manager.publish(TestEvent(), true);
  const auto dispatcher = manager.getDispatcher();
  dispatcher->setStopRequested(true);   // Ends the loop as an escaping exception would.
  manager.publish(BaseEvent(), false);  // Wakes it; no TestEvent subscriber sees it.
  ASSERT_TRUE(eventually([&] { return !dispatcher->isRunning(); }));
  dispatcher->setStopRequested(false);
  manager.publish(TestEvent(), true);  // Starts a new thread and waits for the delivery on it.
  ASSERT_EQ(recorder.count(), 3U);
  EXPECT_EQ(recorder.deliveries()[1].thread, recorder.deliveries()[0].thread);
  EXPECT_NE(recorder.deliveries()[2].thread, recorder.deliveries()[1].thread);
}

// A TestEvent that counts its live copies.
struct CountedEvent : TestEvent {
  static std::atomic<int> live;
  explicit CountedEvent(int payload) : TestEvent(Names{"Counted"}, payload) { ++live; }
  CountedEvent(const CountedEvent& other) : TestEvent(other) { ++live; }
  ~CountedEvent() override { --live; }
  CountedEvent* clone() const override { return new CountedEvent(*this); }
};
std::atomic<int> CountedEvent::live{0};

DispatchQueue::Entry entry(int payload) { return DispatchQueue::Entry{std::make_unique<TestEvent>(payload), {}}; }
int payloadOf(const DispatchQueue::Entry& taken) {  // -1 for an entry handed out empty.
  const auto* const event = static_cast<const TestEvent*>(taken.get());
  return event != nullptr ? event->payload() : -1;
}

// The queue keeps its order across growth and wrap-around of its storage, pushes at the front (one or two in a
// row) overtake everything queued, the entries the consumer took ahead of time included, and takeAll() hands
// over every entry in order, those taken ahead included, leaving an empty queue that still works.
TEST(DispatchQueue, KeepsOrderAcrossGrowthWrapAroundAndFrontPushes) {
  DispatchQueue queue(IdleSpin::never());
  const std::atomic<bool> stopped{true};  // take() on an empty queue returns at once.
  std::deque<int> expected;
  DispatchQueue::Entry taken;
  for (int next = 0; next < 900;) {
    for (int i = 0; i < 3; ++i, ++next) {  // Three in, two out: the storage wraps and grows.
      const bool atBack = next % 7 > 1;
      queue.push(entry(next), atBack);
      atBack ? expected.push_back(next) : expected.push_front(next);
    }
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(queue.take(taken, &stopped));
      ASSERT_EQ(payloadOf(taken), expected.front());
      expected.pop_front();
    }
  }
  queue.push(entry(-2), false);
  expected.push_front(-2);
  EXPECT_EQ(queue.size(), expected.size());
  DispatchQueue::Drained drained;
  queue.takeAll(drained);
  std::vector<int> all;
  drained.forEach([&all](const DispatchQueue::Entry& each) { all.push_back(payloadOf(each)); });
  EXPECT_EQ(all, std::vector<int>(expected.begin(), expected.end()));
  EXPECT_FALSE(queue.take(taken, &stopped));
  queue.push(entry(-1), false);
  ASSERT_TRUE(queue.take(taken, &stopped));
  EXPECT_EQ(payloadOf(taken), -1);
}

// Copies handed back after their delivery are destroyed together, before the consumer's next visit of the
// mutex: here, when it finds the queue empty.
TEST(DispatchQueue, DestroysHandedBackCopiesTogetherBeforeItsNextVisit) {
  DispatchQueue queue(IdleSpin::never());
  const std::atomic<bool> stopped{true};
  for (int i = 0; i < 3; ++i) {
    queue.push(DispatchQueue::Entry{std::make_unique<CountedEvent>(i), {}}, true);
  }
  DispatchQueue::Entry taken;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(queue.take(taken, &stopped));
    queue.handBack(std::move(taken));
  }
  EXPECT_EQ(CountedEvent::live.load(), 3);
  EXPECT_FALSE(queue.take(taken, &stopped));
  EXPECT_EQ(CountedEvent::live.load(), 0);
}

// A late yield now and then pauses nothing; late ones among quick ones, as on a machine busy with other work, pause
// giving way, for twice as long at each renewal; quick ones that bring the score back to 0 reset the length.
TEST(YieldWatch, PausesGivingWayOnlyWhileYieldsKeepLosingTheCore) {
  YieldWatch watch;
  YieldWatch::Clock::time_point now = YieldWatch::Clock::now();
  const auto yieldTaking = [&](std::chrono::microseconds took, int times = 1) {
    for (int i = 0; i < times; ++i, now += took) {
      watch.note(now, now + took);
    }
  };
  const std::chrono::microseconds quick(1);
  const std::chrono::microseconds late(4000);
  const auto pausedFor = [&](std::chrono::milliseconds length) {
    return !watch.pays(now) && !watch.pays(now + length - quick) && watch.pays(now + length);
  };
  yieldTaking(late);
  yieldTaking(quick, 8);
  yieldTaking(late);
  yieldTaking(quick, 7);
  yieldTaking(late);
  EXPECT_TRUE(watch.pays(now));  // The quick yields worked off nearly all of each late one.
  yieldTaking(late, 2);
  EXPECT_TRUE(pausedFor(std::chrono::milliseconds(2)));
  yieldTaking(quick);
  yieldTaking(late);
  EXPECT_TRUE(pausedFor(std::chrono::milliseconds(4)));
  yieldTaking(quick, 64);
  yieldTaking(late, 3);
  EXPECT_TRUE(pausedFor(std::chrono::milliseconds(2)));
}

// The queue hands every entry over once, each pusher's in its order, whether its consumer spins between
// entries or blocks: entries that each find it idle (the next is pushed once the last was taken), a
// burst from two threads at once, then quick round trips, which start the adaptive spin again after
// the idle entries stopped it; last, a burst that takeAll() takes over while the consumer holds the part of it
// that it took ahead. Forced order: the burst is queued while the consumer is held after the last round trip;
// it takes the burst's first entry and more ahead, and is held again while takeAll() runs.
TEST(DispatchQueue, HandsOverEveryEntryOnceInOrderWhetherItSpinsOrBlocks) {
  constexpr int kEvents = 2000;  // Per origin: one at a time, two bursts, then round trips.
  for (const IdleSpin spin : {IdleSpin::never(), IdleSpin::adaptive()}) {
    SCOPED_TRACE(spin.mayEverSpin() ? "adaptive" : "never");
    DispatchQueue queue(spin);
    std::atomic<bool> stop{false};
    std::vector<int> payloads;  // Written by the consumer until `taken` counts all.
    Counter taken;
    Gate burstQueued;
    Gate takenOver;
    std::thread consumer([&] {
      DispatchQueue::Entry next;
      while (!stop.load()) {
        if (queue.take(next, &stop)) {
          payloads.push_back(payloadOf(next));
          taken.add();
          const bool holds = payloads.back() == 3 * kEvents + 39 || payloads.back() == 4 * kEvents;
          ASSERT_TRUE(!holds || (payloads.back() == 4 * kEvents ? takenOver : burstQueued).wait());
        }
      }
    });
    for (int i = 0; i < 40; ++i) {  // Each finds the consumer idle.
      queue.push(entry(i), true);
      ASSERT_TRUE(taken.waitFor(static_cast<std::size_t>(i) + 1));
    }
    Gate start;
    const auto burst = [&](int origin) {
      ASSERT_TRUE(start.wait());
      for (int i = 0; i < kEvents; ++i) {
        queue.push(entry(origin * kEvents + i), true);
      }
    };
    std::thread first(burst, 1);
    std::thread second(burst, 2);
    start.open();
    first.join();
    second.join();
    for (int i = 0; i < 40; ++i) {
      queue.push(entry(3 * kEvents + i), i % 2 == 0);  // Front or back: the queue is empty each time.
      ASSERT_TRUE(taken.waitFor(2 * kEvents + 41 + static_cast<std::size_t>(i)));
    }
    burst(4);  // The start gate is open: queued at once.
    burstQueued.open();
    ASSERT_TRUE(taken.waitFor(2 * kEvents + 81));
    DispatchQueue::Drained drained;
    queue.takeAll(drained);
    takenOver.open();
    queue.push(entry(5 * kEvents), true);  // The next entry the consumer hands out is this one.
    ASSERT_TRUE(taken.waitFor(2 * kEvents + 82));
    stop = true;
    queue.wake();
    consumer.join();
    drained.forEach([&payloads](const DispatchQueue::Entry& each) { payloads.push_back(payloadOf(each)); });
    std::vector<int> next{0, kEvents, 2 * kEvents, 3 * kEvents, 4 * kEvents, 5 * kEvents};
    for (const int payload : payloads) {
      ASSERT_EQ(payload, next.at(static_cast<std::size_t>(payload / kEvents))++) << "lost, repeated or out of order";
    }
    EXPECT_EQ(next, (std::vector<int>{40, 2 * kEvents, 3 * kEvents, 3 * kEvents + 40, 5 * kEvents, 5 * kEvents + 1}));
  }
}

// Shutdown does not hang on an unserved hand-off, and the withdrawn hand-off never runs when pumped later.
// After it instance() is a no-op manager for good, and so is a pointer taken before: every call does nothing,
// counts are 0 (the interleaving that once freed the manager under a caller: instance() returned, the owner
// let go, then the caller calls).
TEST(ManagerShutdown, DoesNotHangOnAnUnservedHandOffAndLeavesOnlyNoOps) {
  EventMgr* const taken = EventMgr::instance();
  Recorder handsOff;
  bool workRan = false;
  handsOff.setAction([&](const BaseEvent&) { ToDoAdapter::runOnceOnMainThreadImpl([&workRan] { workRan = true; }); });
  taken->subscribe("TestEvent", clientFor(handsOff));
  taken->publish(TestEvent(), false);
  ASSERT_TRUE(eventually(handOffPending));
  shutDownManager();
  EventMgr* const after = EventMgr::instance();
  ASSERT_EQ(dynamic_cast<DefaultEventMgr*>(after), nullptr);
  dynamic_cast<ToDoAdapter&>(*after).invokeOnceOnMainThread();  // A main loop that goes on.
  EXPECT_FALSE(workRan);
  for (EventMgr* const manager : {taken, after}) {
    manager->publish(TestEvent(1), false);
    manager->publish(TestEvent(2), true);
    manager->subscribe("TestEvent", clientFor(handsOff));
    manager->subscribe(Names{"Edit"}, Names{"Commit"}, clientFor(handsOff));
    manager->unSubscribe("TestEvent", clientFor(handsOff));
    manager->unSubscribe(Names{"Edit"}, Names{"Commit"}, clientFor(handsOff));
    EXPECT_EQ(manager->getSubscriptionCount(), 0U);
    EXPECT_EQ(manager->getPendingEventCount(), 0U);
    EXPECT_FALSE(manager->isDispatchOrMainThread());
  }
  EXPECT_EQ(handsOff.count(), 1U);
  ToDoAdapter::runOnceOnMainThreadImpl([] {});
  EXPECT_EQ(EventMgr::instance(), after);
}

// The last owner letting go inside a subscriber destroys the manager safely once that delivery is over: the
// delivery goes on first, an event queued behind it (both queued while the dispatcher is held) is dropped, and
// the copies of both are destroyed, the delivered one too, which the ended dispatcher no longer frees.
TEST(ManagerShutdown, ReleaseFromInsideASubscriber) {
  EventMgr& manager = *EventMgr::instance();
  Recorder releaser;
  Recorder later;  // Sees the hold's event and the requests (payload -1) too.
  const auto testEventsLater = [&later] {
    std::vector<int> payloads = later.payloads();
    payloads.erase(std::remove(payloads.begin(), payloads.end(), -1), payloads.end());
    return payloads;
  };
  releaser.setAction([](const BaseEvent&) { shutDownManager(); });
  manager.subscribe("TestEvent", &releaser, &Recorder::onTest);
  manager.subscribe("BaseEvent", &later, &Recorder::onBase);
  {
    DispatcherHold hold;
    manager.publish(CountedEvent(1), false);
    manager.publish(CountedEvent(2), false);
  }
  ASSERT_TRUE(eventually([] { return !detail::isDefaultManagerCreated(); }));
  EXPECT_TRUE(eventually([] { return CountedEvent::live.load() == 0; }));
  EXPECT_FALSE(eventually([&] { return testEventsLater().size() > 1; }, std::chrono::milliseconds(200)));
  EXPECT_EQ(testEventsLater(), std::vector<int>{1});
  EXPECT_EQ(dynamic_cast<DefaultEventMgr*>(EventMgr::instance()), nullptr);
}
