// SPDX-License-Identifier: MIT
// The action event that carries a request to the dispatcher, and requests that wait for it: the poll loop and
// its deadlock report, printing a failure report while they wait, and refused on the dispatcher thread itself.
#include "ActionContainerEvent.h"
#include "SynchronousRequest.h"
#include "UnitTest.h"

using Action = boost::function0<void>;

namespace {
// Whether `event` is marked done, looked up without waiting.
bool isDone(const ActionContainerEvent& event) {
  ActionContainerEvent::Lock lock(event.getMutex());
  return event.waitDone(lock, ActionContainerEvent::Clock::now());
}
// A requester whose manager lives for `livePolls` polls, counting them; its hand-off may throw once.
struct CountingRequester {
  unsigned long livePolls = 0;
  bool throwAtFirstServe = false;
  unsigned long begun = 0;
  unsigned long ended = 0;
  bool beginPoll() { return begun++ < livePolls; }
  void servePoll() {
    if (std::exchange(throwAtFirstServe, false)) {
      throw std::runtime_error("hand-off failed");
    }
  }
  void endPoll() { ++ended; }
};

const std::string kReportLine =
    "Event dispatch from vexutil::eventmgr::EventMgr (ostrel/src/vexutil) appears to be deadlocked. "
    "Contact vexutil-maintainers@lists.vexutil.org.\n";
}  // namespace

// execute marks the event done only after its action ran without throwing. Copies and clones share one
// completion: marking a copy (twice is harmless) completes the others.
TEST(ActionContainerEvent, ExecuteMarksDoneOnlyAfterSuccessAndCopiesShareCompletion) {
  const ActionContainerEvent event{Action([] {})};
  event.execute();
  EXPECT_TRUE(isDone(event));
  const ActionContainerEvent empty{Action()};
  EXPECT_THROW(empty.execute(), boost::bad_function_call);
  const ActionContainerEvent failing{Action([] { throw 5; })};
  EXPECT_THROW(failing.execute(), int);
  EXPECT_FALSE(isDone(empty) || isDone(failing));
  std::unique_ptr<ActionContainerEvent> clone(empty.clone());
  const ActionContainerEvent copy(empty);  // NOLINT(performance-unnecessary-copy-initialization): a real copy.
  EXPECT_FALSE(isDone(*clone));
  copy.markDone();
  copy.markDone();
  EXPECT_TRUE(isDone(empty) && isDone(*clone));
}

// A failure reported while a thread waits in a synchronous publish is printed by that thread's polls.
// Forced order: the failing event and the request queue behind a held dispatcher, the hold ends, the
// failure is reported, and the request's own delivery waits until a poll has taken the report.
TEST(SynchronousRequests, WaitingThreadPrintsPendingReport) {
  EventMgr& manager = *EventMgr::instance();
  Recorder thrower;
  Recorder blocker;
  thrower.setAction([](const BaseEvent&) { throw 3; });
  blocker.setAction(
      [](const BaseEvent&) { EXPECT_TRUE(eventually([] { return !defaultManager().hasPendingReport(); })); });
  manager.subscribe("TestEvent", &thrower, &Recorder::onTest);
  manager.subscribe("InputRequestEvent", &blocker, &Recorder::onBase);
  std::string printed;
  {
    DispatcherHold hold;
    manager.publish(TestEvent(), false);
    std::thread releaser([&] {
      EXPECT_TRUE(eventually([&] { return manager.getPendingEventCount() == 2; }));
      hold.release();
    });
    printed = printedBy([&] { manager.publish(InputRequestEvent(), true); });
    releaser.join();
  }
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos) << printed;
}

// On the dispatcher thread each request that waits for it throws NotifyDeadlockException and changes nothing;
// an asynchronous publish works there.
TEST(SynchronousRequests, WaitingRequestsInsideNotifyAreRefused) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  Recorder other;
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, clientFor(other));
  recorder.setAction([&](const BaseEvent& event) {
    if (dynamic_cast<const TestEvent&>(event).payload() != 1) {
      return;
    }
    EXPECT_THROW(manager.subscribe("X", &other, &Recorder::onBase), NotifyDeadlockException);
    EXPECT_THROW(manager.subscribe(Names{"X"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.subscribe(Names{"A"}, Names{"B"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.unSubscribe(Names{"Edit"}, Names{"Commit"}, clientFor(other)), NotifyDeadlockException);
    EXPECT_THROW(manager.publish(TestEvent(2), true), NotifyDeadlockException);
    EXPECT_THROW(manager.publish(TestEvent(2)), NotifyDeadlockException);
    manager.publish(TestEvent(3), false);
  });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  manager.publish(TestEvent(1), true);
  drainQueue();
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 3}));  // The refused publishes queued nothing.
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);             // "Edit", "Commit", "TestEvent".
  EXPECT_EQ(defaultManager().getMailerCount(), 1U);
}

// The poll loop with a report after 3 polls: a request that is never done prints the exact report line once,
// after its third poll, and waits on until the manager is gone; one already done returns at its first poll; a
// hand-off that throws passes out with the manager let go.
TEST(SynchronousRequests, PollLoopReportsOnceAndEndsWithTheManager) {
  const SynchronousRequest request(3);
  ActionContainerEvent action{Action()};
  ActionContainerEvent::Lock lock(action.getMutex());
  CountingRequester waiting{4};  // Lives for one poll after the third.
  bool done = true;
  EXPECT_EQ(printedBy([&] { done = request.await(action, lock, waiting); }), kReportLine);
  EXPECT_FALSE(done);
  EXPECT_EQ(waiting.begun, 5U);
  EXPECT_EQ(waiting.ended, 4U);
  CountingRequester shortWait{3};
  EXPECT_EQ(printedBy([&] { request.await(action, lock, shortWait); }), "") << "reported before 3 polls had passed";
  CountingRequester failing{6, true};
  EXPECT_THROW(request.await(action, lock, failing), std::runtime_error);
  EXPECT_EQ(failing.ended, 1U);
  lock.unlock();
  action.markDone();
  lock.lock();
  CountingRequester finished{6};
  EXPECT_TRUE(request.await(action, lock, finished));
  EXPECT_EQ(finished.begun, 1U);
}
