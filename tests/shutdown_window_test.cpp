// SPDX-License-Identifier: MIT
// The window between the start of a shutdown and its end, while the
// dispatcher may still be finishing a delivery; and fork() after the
// dispatcher has started.
#include <boost/weak_ptr.hpp>

#include "UnitTest.h"

namespace {

constexpr std::chrono::milliseconds kChanceToReturnEarly(500);

// Holds the dispatcher inside the delivery of a "Stall" event (types "Stall", "TestEvent", "BaseEvent"):
// the staller first, then whatever the test subscribes to "TestEvent", then the sentinel on "BaseEvent",
// which notes whether the call under test had already returned when the delivery got that far.
class ShutdownWindow : public ::testing::Test {
 protected:
  void SetUp() override {
    staller_.setAction([this](const BaseEvent&) {
      stalled_.open();
      EXPECT_TRUE(release_.wait());
    });
    sentinel_.setAction([this](const BaseEvent&) {
      returnedBeforeDeliveryEnded_ = callsReturned_.load();
      proxyFreedBeforeDeliveryEnded_ = subscribedProxy_.expired();
    });
    kept_->subscribe("Stall", &staller_, &Recorder::onTest);
    kept_->subscribe("BaseEvent", &sentinel_, &Recorder::onTest);
  }
  void stallDelivery() {
    kept_->publish(NamedEvent("Stall", 1), false);
    ASSERT_TRUE(stalled_.wait());
  }
  // Another thread starts the shutdown, which then waits to join the stalled dispatcher; returns once the
  // shutdown has taken the queue (`queued` events) and so has let the manager expire.
  void startShutdown(unsigned queued) {
    ASSERT_TRUE(eventually([&] { return kept_->getPendingEventCount() == queued; }));
    shutter_ = std::thread(shutDownManager);
    ASSERT_TRUE(eventually([&] { return kept_->getPendingEventCount() == 0; }));
  }
  // A proxy of the client, watched: the subscription table or a mailer holds it until cleared or freed.
  EventMgr::ClientPtr subscribedProxy() {
    const EventMgr::ClientPtr proxy = clientFor(client_);
    subscribedProxy_ = proxy;
    return proxy;
  }
  // Starts a call under test on a thread of its own.
  void startCall(std::function<void()> call) {
    callers_.emplace_back([this, call = std::move(call)] {
      call();
      ++callsReturned_;
    });
  }
  // Gives the calls a chance to return early, then lets the delivery go on and waits for everything to end.
  void finish() {
    eventually([&] { return callsReturned_.load() == static_cast<int>(callers_.size()); }, kChanceToReturnEarly);
    release_.open();
    shutter_.join();
    for (std::thread& caller : callers_) {
      caller.join();
    }
    EXPECT_EQ(sentinel_.count(), 1U);
    EXPECT_EQ(returnedBeforeDeliveryEnded_.load(), 0)
        << "calls returned while the delivery could still reach their client";
    EXPECT_FALSE(proxyFreedBeforeDeliveryEnded_) << "the mailer was freed while the delivery could reach it";
  }

  EventMgr* const kept_ = EventMgr::instance();  // Taken before the shutdown.
  Recorder staller_;
  Recorder sentinel_;
  Recorder client_;
  Gate stalled_;
  Gate release_;
  std::thread shutter_;
  std::vector<std::thread> callers_;
  std::atomic<int> callsReturned_{0};
  std::atomic<int> returnedBeforeDeliveryEnded_{0};
  boost::weak_ptr<ClientProxy> subscribedProxy_;  // Written before, read inside, the stalled delivery.
  std::atomic<bool> proxyFreedBeforeDeliveryEnded_{false};
};

// An unSubscribe made in the window, through instance() (the no-op manager by then) or through a pointer kept
// from before (here the list form), returns only once the delivery in progress can no longer reach the client.
// Forced interleaving: delivery stalled before the client; shutdown started; each unSubscribe on a thread of its
// own.
TEST_F(ShutdownWindow, UnSubscribeReturnsOnlyAfterTheLastDelivery) {
  kept_->subscribe("TestEvent", subscribedProxy());
  stallDelivery();
  startShutdown(0);
  startCall([this] { EventMgr::instance()->unSubscribe("TestEvent", clientFor(client_)); });
  startCall([this] { kept_->unSubscribe(Names{"TestEvent"}, clientFor(client_)); });
  finish();
  EXPECT_EQ(client_.count(), 1U);
}

// A combined unSubscribe through a kept pointer in the window frees the mailer only once the delivery in
// progress (which reaches the mailer's handler) has ended. Same forced interleaving as above.
TEST_F(ShutdownWindow, CombinedUnSubscribeDoesNotFreeTheMailerUnderItsDelivery) {
  kept_->subscribe(Names{"TestEvent"}, Names{"Commit"}, subscribedProxy());
  stallDelivery();
  startShutdown(0);
  startCall([this] { kept_->unSubscribe(Names{"TestEvent"}, Names{"Commit"}, clientFor(client_)); });
  finish();
}

// A combined subscribe that gives up because the manager shut down while it was being made frees its
// half-built mailer only once the delivery in progress, which reaches the mailer's trigger handler, has ended.
// Forced interleaving: the mailer's first subscription ("TestEvent") is made, then the delivery stalls with the
// second one queued behind it; the shutdown takes that one; the subscribe gives up on its own thread.
TEST_F(ShutdownWindow, CombinedSubscribeGivingUpDoesNotFreeTheMailerUnderItsDelivery) {
  DispatcherHold hold;
  startCall([this, proxy = subscribedProxy()] { kept_->subscribe(Names{"Later"}, Names{"TestEvent"}, proxy); });
  ASSERT_TRUE(eventually([&] { return kept_->getPendingEventCount() == 1; }));
  kept_->publish(NamedEvent("Stall", 1), false);
  hold.release();
  ASSERT_TRUE(stalled_.wait());
  startShutdown(1);
  finish();
}

// Set in a forked child, which has only the thread that forked: LeakSanitizer would take what the parent's
// other threads hold on their stacks for leaks, and is turned off there.
std::atomic<bool> inForkedChild{false};

// A child forked after the dispatcher started, even in the middle of a delivery, exits promptly through exit()
// (static destructors included); in it the manager is the no-op one, and publishing does nothing. The parent's
// manager is unaffected.
TEST(Fork, ChildExitsAndFindsTheNoOpManager) {
  Recorder recorder;
  EventMgr::instance()->subscribe("TestEvent", &recorder, &Recorder::onTest);
  EventMgr::instance()->publish(TestEvent(1), true);
  {
    DispatcherHold hold;  // The child that only exits is forked while the dispatcher delivers.
    EXPECT_EQ(inChild([] { return inForkedChild = true, 0; }), 0) << "a child that only exits";
  }
  EXPECT_EQ(inChild([&recorder] {
              inForkedChild = true;
              EventMgr* const manager = EventMgr::instance();
              manager->subscribe("TestEvent", &recorder, &Recorder::onTest);
              manager->publish(TestEvent(2), false);
              manager->publish(TestEvent(3), true);
              manager->unSubscribe("TestEvent", &recorder, &Recorder::onTest);
              return dynamic_cast<DefaultEventMgr*>(manager) == nullptr && manager->getSubscriptionCount() == 0 &&
                             recorder.count() == 1
                         ? 0
                         : 3;
            }),
            0)
      << "a child that publishes (3: the manager was not the no-op one)";
  EventMgr::instance()->publish(TestEvent(4), true);
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 4}));
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// Asked by LeakSanitizer at exit.
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier,readability-identifier-naming)
  return inForkedChild.load() ? 1 : 0;
}
#endif
