// Combined subscriptions: how a mailer splits its types, what its client
// receives, and the manager's two-list subscribe and unSubscribe.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "DefaultEventMgr.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/eventmgr/ProxyMailer.h"

using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::ClientProxy;
using vexutil::eventmgr::DefaultEventMgr;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::ProxyMailer;
using namespace vexutil::testing_support;
using Names = std::vector<std::string>;

namespace {

// An event of a named type carrying a tag, e.g. Named("Edit", 3).
class Named : public BaseEvent {
 public:
  Named(const std::string& type, int tag) : BaseEvent(Names{type}), tag_(tag) {}
  Named* clone() const override { return new Named(*this); }
  int tag() const { return tag_; }
  std::string label() const { return getTypes().front() + std::to_string(tag_); }

 private:
  int tag_;
};

// A client that records labels of what it receives, and can fail on demand.
struct Client {
  std::vector<std::string> received;
  std::vector<const BaseEvent*> addresses;
  int failOnCall = -1;  // 0-based index of the call that throws, once.
  int calls = 0;
  void on(const BaseEvent& event) {
    const int call = calls++;
    if (call == failOnCall) {
      failOnCall = -1;
      throw std::runtime_error("client failed");
    }
    received.push_back(dynamic_cast<const Named&>(event).label());
    addresses.push_back(&event);
  }
};

EventMgr::ClientPtr proxyFor(Client& client) {
  return EventMgr::ClientPtr(new ClientAdapter<Client, BaseEvent>(&client, &Client::on));
}

DefaultEventMgr& manager() { return defaultManager(); }

}  // namespace

// Disjoint groups: trigger and delayed lists, ascending, nothing combined.
TEST(ProxyMailer, DisjointGroupsSplitIntoTriggerAndDelayed) {
  Client client;
  const ProxyMailer mailer(Names{"Q", "P", "P"}, Names{"T"}, proxyFor(client));
  EXPECT_EQ(mailer.getTriggerTypes(), Names{"T"});
  EXPECT_EQ(mailer.getDelayedTypes(), (Names{"P", "Q"}));
  EXPECT_TRUE(mailer.getCombinedTypes().empty());
  EXPECT_EQ(manager().getSubscriptionCount(), 3U);
}

// Overlapping groups: the shared name is combined and subscribed once.
TEST(ProxyMailer, OverlappingGroupsYieldCombinedTypes) {
  Client client;
  const ProxyMailer mailer(Names{"R", "P"}, Names{"T", "R"}, proxyFor(client));
  EXPECT_EQ(mailer.getCombinedTypes(), Names{"R"});
  EXPECT_EQ(mailer.getDelayedTypes(), Names{"P"});
  EXPECT_EQ(mailer.getTriggerTypes(), Names{"T"});
  EXPECT_EQ(manager().getSubscriptionCount(), 3U);

  const ProxyMailer identical(Names{"X"}, Names{"X"}, proxyFor(client));
  EXPECT_EQ(identical.getCombinedTypes(), Names{"X"});
  EXPECT_TRUE(identical.getDelayedTypes().empty());
  EXPECT_TRUE(identical.getTriggerTypes().empty());
  EXPECT_EQ(manager().getSubscriptionCount(), 4U);
}

// Empty groups subscribe nothing; destruction withdraws exactly what was made.
TEST(ProxyMailer, SubscriptionsLiveAsLongAsTheMailer) {
  Client client;
  { const ProxyMailer empty(Names{}, Names{}, proxyFor(client)); }
  EXPECT_EQ(manager().getSubscriptionCount(), 0U);
  {
    const ProxyMailer mailer(Names{"P"}, Names{"T"}, proxyFor(client));
    EXPECT_EQ(manager().getSubscriptionCount(), 2U);
  }
  EXPECT_EQ(manager().getSubscriptionCount(), 0U);
  // clearAll first: the destructor then withdraws nothing.
  {
    ProxyMailer mailer(Names{"P"}, Names{"T"}, proxyFor(client));
    mailer.clearAll();
  }
  EXPECT_EQ(manager().getSubscriptionCount(), 2U);
}

// Ordering: by client, then delayed set, then trigger set; clients of different classes are mutually less.
TEST(ProxyMailer, OrderingFollowsClientThenSets) {
  Client a;
  Client b;
  Recorder other;
  const auto ca = proxyFor(a);
  const ProxyMailer p(Names{"P"}, Names{"S"}, ca);
  const ProxyMailer pq(Names{"P", "Q"}, Names{"S"}, ca);
  const ProxyMailer pT(Names{"P"}, Names{"T"}, ca);
  const ProxyMailer pTT(Names{"P"}, Names{"TT"}, ca);
  const ProxyMailer same(Names{"P", "P"}, Names{"S"}, proxyFor(a));
  EXPECT_TRUE(p < pq);
  EXPECT_FALSE(pq < p);
  EXPECT_TRUE(p < pT);
  EXPECT_TRUE(pT < pTT);
  EXPECT_FALSE(p < same);
  EXPECT_FALSE(same < p);

  const ProxyMailer forB(Names{"A"}, Names{"S"}, proxyFor(b));
  const bool aFirst = &a < &b;
  EXPECT_EQ(p < forB, aFirst);  // Same client class: by instance id alone.
  EXPECT_EQ(forB < p, !aFirst);

  const ProxyMailer otherClass(Names{"P"}, Names{"S"},
                               EventMgr::ClientPtr(new ClientAdapter<Recorder, BaseEvent>(&other, &Recorder::onBase)));
  EXPECT_TRUE(p < otherClass);
  EXPECT_TRUE(otherClass < p);
}

// Handlers called directly: delayed, delayed, trigger; trigger with nothing stored; combined.
TEST(ProxyMailer, HandlersBatchInArrivalOrder) {
  Client client;
  ProxyMailer mailer(Names{}, Names{}, proxyFor(client));
  const Named d1("D", 1);
  mailer.triggerHandler(Named("T", 0));  // Nothing stored: nothing happens, nothing remembered.
  mailer.delayedHandler(d1);
  mailer.delayedHandler(Named("D", 2));
  EXPECT_TRUE(client.received.empty());
  mailer.triggerHandler(Named("T", 1));
  EXPECT_EQ(client.received, (Names{"D1", "D2"}));
  EXPECT_NE(client.addresses.front(), &d1);  // The mailer's own clone.
  mailer.triggerHandler(Named("T", 2));
  EXPECT_EQ(client.received.size(), 2U);
  mailer.delayedHandler(Named("D", 3));
  mailer.combinedHandler(Named("K", 1));
  mailer.combinedHandler(Named("K", 2));
  EXPECT_EQ(client.received, (Names{"D1", "D2", "D3", "K1", "K2"}));
  EXPECT_EQ(mailer.getStoredEventCount(), 0U);
}

// Through the manager: edits are held back until a commit, which is not handed over itself.
TEST(CombinedSubscription, DelayedEventsWaitForTrigger) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  const auto proxy = proxyFor(client);
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxy);
  events.publish(Named("Commit", 0), true);  // Nothing stored yet.
  events.publish(Named("Edit", 1), false);
  events.publish(Named("Edit", 2), false);
  drainQueue();
  EXPECT_TRUE(client.received.empty());
  events.publish(Named("Commit", 1), true);
  EXPECT_EQ(client.received, (Names{"Edit1", "Edit2"}));
  events.publish(Named("Commit", 2), true);
  EXPECT_EQ(client.received.size(), 2U);
  events.unSubscribe(Names{"Edit"}, Names{"Commit"}, proxy);
  EXPECT_EQ(events.getSubscriptionCount(), 0U);
  EXPECT_EQ(manager().getMailerCount(), 0U);
}

// A combined type is stored and triggers: delivered last in its own batch.
TEST(CombinedSubscription, CombinedTypeIsDeliveredLast) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  const auto proxy = proxyFor(client);
  events.subscribe(Names{"Edit", "Save"}, Names{"Save"}, proxy);
  events.publish(Named("Save", 1), true);
  EXPECT_EQ(client.received, Names{"Save1"});
  events.publish(Named("Edit", 1), false);
  events.publish(Named("Save", 2), true);
  EXPECT_EQ(client.received, (Names{"Save1", "Edit1", "Save2"}));
}

// A client that fails on the second of three stored events gets all three again at the next trigger.
TEST(CombinedSubscription, FailedBatchIsHandedOverAgain) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  client.failOnCall = 1;
  const auto proxy = proxyFor(client);
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxy);
  for (int i = 1; i <= 3; ++i) {
    events.publish(Named("Edit", i), false);
  }
  ::testing::internal::CaptureStdout();
  events.publish(Named("Commit", 1), true);
  EXPECT_EQ(client.received, Names{"Edit1"});
  events.publish(Named("Commit", 2), true);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(client.received, (Names{"Edit1", "Edit1", "Edit2", "Edit3"}));
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos);
}

// The same lists and client subscribed twice give one mailer; each flushed event arrives once.
TEST(CombinedSubscription, DuplicateSubscriptionKeepsOneMailer) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(client));
  events.subscribe(Names{"Edit", "Edit"}, Names{"Commit"}, proxyFor(client));
  EXPECT_EQ(manager().getMailerCount(), 1U);
  EXPECT_EQ(events.getSubscriptionCount(), 2U);
  events.publish(Named("Edit", 1), false);
  events.publish(Named("Commit", 1), true);
  EXPECT_EQ(client.received, Names{"Edit1"});
}

// unSubscribe with lists that match nothing changes nothing; null clients are no-ops.
TEST(CombinedSubscription, UnmatchedOrNullRequestsChangeNothing) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  Client stranger;
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(client));
  events.unSubscribe(Names{"Edit"}, Names{"Other"}, proxyFor(client));
  events.unSubscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(stranger));
  events.unSubscribe(Names{"Edit"}, Names{"Commit"}, EventMgr::ClientPtr());
  events.subscribe(Names{"Edit"}, Names{"Commit"}, EventMgr::ClientPtr());
  EXPECT_EQ(manager().getMailerCount(), 1U);
  EXPECT_EQ(events.getSubscriptionCount(), 2U);
  events.publish(Named("Edit", 1), false);
  events.publish(Named("Commit", 1), true);
  EXPECT_EQ(client.received, Names{"Edit1"});
  EXPECT_TRUE(stranger.received.empty());
}

// The two-list calls inside notify throw NotifyDeadlockException and leave the set unchanged.
TEST(CombinedSubscription, TwoListCallsInsideNotifyAreRefused) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  const auto proxy = proxyFor(client);
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxy);
  std::vector<std::string> outcomes;
  Recorder inside;
  inside.setAction([&](const BaseEvent&) {
    for (const bool subscribing : {true, false}) {
      try {
        if (subscribing) {
          events.subscribe(Names{"A"}, Names{"B"}, proxy);
        } else {
          events.unSubscribe(Names{"Edit"}, Names{"Commit"}, proxy);
        }
        outcomes.push_back("ok");
      } catch (const vexutil::eventmgr::NotifyDeadlockException&) {
        outcomes.push_back("refused");
      }
    }
  });
  events.subscribe("TestEvent", &inside, &Recorder::onTest);
  events.publish(TestEvent(), true);
  EXPECT_EQ(outcomes, (Names{"refused", "refused"}));
  EXPECT_EQ(manager().getMailerCount(), 1U);
}

// Removing a combined subscription while its events flow never hands the client an event twice.
TEST(CombinedSubscription, UnsubscribeNeverDuplicatesDeliveries) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  std::atomic<bool> stop{false};
  std::thread publisher([&] {
    for (int tag = 0; !stop; ++tag) {
      events.publish(Named("Edit", tag), false);
      events.publish(Named("Commit", tag), false);
    }
  });
  for (int round = 0; round < 50; ++round) {
    events.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(client));
    events.unSubscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(client));
  }
  stop = true;
  publisher.join();
  drainQueue();
  std::set<std::string> seen;
  for (const std::string& label : client.received) {
    EXPECT_TRUE(seen.insert(label).second) << label << " arrived twice";
  }
}

// Two-list subscribes and unsubscribes from several threads neither corrupt the set nor deadlock.
TEST(CombinedSubscription, ConcurrentTwoListChangesAreSafe) {
  EventMgr& events = *EventMgr::instance();
  constexpr int kThreads = 4;
  constexpr int kRounds = 20;
  std::vector<Client> clients(kThreads);
  Gate start;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ASSERT_TRUE(start.wait());
      Client& mine = clients[static_cast<std::size_t>(t)];
      for (int round = 0; round < kRounds; ++round) {
        events.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(mine));
        events.subscribe(Names{"Edit" + std::to_string(t)}, Names{"Commit"}, proxyFor(mine));
        events.unSubscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(mine));
      }
    });
  }
  start.open();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(manager().getMailerCount(), static_cast<std::size_t>(kThreads));
  EXPECT_EQ(events.getSubscriptionCount(), static_cast<unsigned>(2 * kThreads));
}

// Shutdown clears the mailers without delivering what they hold.
TEST(CombinedSubscription, ShutdownDropsStoredEvents) {
  EventMgr& events = *EventMgr::instance();
  Client client;
  events.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(client));
  events.publish(Named("Edit", 1), true);
  shutDownManager();
  EXPECT_TRUE(client.received.empty());
  // A mailer built against the no-op manager lives and dies quietly.
  { const ProxyMailer quiet(Names{"Edit"}, Names{"Commit"}, proxyFor(client)); }
  EventMgr::instance()->publish(Named("Commit", 1), true);
  EXPECT_TRUE(client.received.empty());
}
