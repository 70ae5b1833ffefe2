// SPDX-License-Identifier: MIT
// Combined subscriptions through the manager's two-list subscribe and
// unSubscribe: what is held back, what the client receives, and when.
#include "UnitTest.h"

// Delayed events wait for a trigger, which hands them over in order, once, without itself.
// A type in both lists comes last in its own batch; unSubscribe with the lists in another order removes all. Then a
// client that fails on the second of three held-back events gets all three again at the next trigger; shutdown drops
// held-back events undelivered, and a mailer built against the no-op manager is harmless.
TEST(CombinedSubscription, DelayedEventsWaitForTriggerAndAFailedBatchComesAgain) {
  EventMgr& manager = *EventMgr::instance();
  Recorder client;
  manager.subscribe(Names{"Edit", "Save"}, Names{"Commit", "Save"}, clientFor(client));
  manager.publish(NamedEvent("Commit", 0), true);
  manager.publish(NamedEvent("Edit", 1), true);
  manager.publish(NamedEvent("Edit", 2), true);
  EXPECT_EQ(client.count(), 0U);
  manager.publish(NamedEvent("Commit", 1), true);
  EXPECT_EQ(client.labels(), (Names{"Edit1", "Edit2"}));
  manager.publish(NamedEvent("Edit", 3), false);
  manager.publish(NamedEvent("Save", 1), true);
  manager.publish(NamedEvent("Commit", 2), true);
  EXPECT_EQ(client.labels(), (Names{"Edit1", "Edit2", "Edit3", "Save1"}));
  manager.unSubscribe(Names{"Save", "Edit"}, Names{"Save", "Commit"}, clientFor(client));
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  EXPECT_EQ(defaultManager().getMailerCount(), 0U);

  Recorder failing;
  int calls = 0;
  failing.setAction([&calls](const BaseEvent&) {
    if (++calls == 2) {
      throw std::runtime_error("client failed");
    }
  });
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, clientFor(failing));
  for (int i = 1; i <= 3; ++i) {
    manager.publish(NamedEvent("Edit", i), false);
  }
  const std::string printed = printedBy([&] {
    manager.publish(NamedEvent("Commit", 1), true);
    EXPECT_EQ(failing.labels(), Names{"Edit1"});
    manager.publish(NamedEvent("Commit", 2), true);
  });
  EXPECT_EQ(failing.labels(), (Names{"Edit1", "Edit1", "Edit2", "Edit3"}));
  EXPECT_NE(printed.find("] Unknown Exception\n"), std::string::npos);
  manager.publish(NamedEvent("Edit", 4), true);
  shutDownManager();
  { const ProxyMailer quiet(Names{"Edit"}, Names{"Commit"}, clientFor(failing)); }
  EXPECT_EQ(failing.count(), 4U);
}

// One combined subscription per lists (any order, repeats) and subscriber, made once and never twice even for a
// moment; only an exact match removes it.
TEST(CombinedSubscription, OneMailerPerListsAndSubscriber) {
  EventMgr& manager = *EventMgr::instance();
  Recorder client;
  Recorder stranger;
  manager.subscribe(Names{"Edit", "Draft"}, Names{"Commit"}, clientFor(client));
  {
    // The same lists again find the mailer before anything is built: with the dispatcher held, a subscribe
    // that queued a request could not return.
    DispatcherHold hold;
    Gate returned;
    std::thread again([&] {
      manager.subscribe(Names{"Draft", "Edit", "Edit"}, Names{"Commit"}, clientFor(client));
      returned.open();
    });
    EXPECT_TRUE(returned.wait());
    EXPECT_EQ(manager.getPendingEventCount(), 0U);
    again.join();
  }
  manager.subscribe(Names{"Draft"}, Names{"Commit"}, clientFor(client));  // Other lists: a second mailer.
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{"Edit", "Draft"}, Names{"Other"}, clientFor(client));
  manager.unSubscribe(Names{"Edit", "Draft"}, Names{"Commit"}, clientFor(stranger));
  manager.unSubscribe(Names{"Edit", "Draft"}, Names{"Commit"}, EventMgr::ClientPtr());
  EXPECT_EQ(defaultManager().getMailerCount(), 2U);
  EXPECT_EQ(manager.getSubscriptionCount(), 5U);
  manager.publish(NamedEvent("Edit", 1), false);
  manager.publish(NamedEvent("Commit", 1), true);
  EXPECT_EQ(client.labels(), Names{"Edit1"});
  manager.unSubscribe(Names{"Draft"}, Names{"Commit"}, clientFor(client));
  EXPECT_EQ(defaultManager().getMailerCount(), 1U);
}

// Two threads making the same combined subscription at once build one mailer: each event reaches the client once.
// Forced interleaving: with the dispatcher held, the first thread's mailer queues its subscription; the second
// thread makes the same one and is given half a second to queue a request of its own; an event of the type that
// is both delayed and trigger queues behind; then the dispatcher is let go.
TEST(CombinedSubscription, ConcurrentEqualSubscriptionsBuildOneMailer) {
  EventMgr& manager = *EventMgr::instance();
  Recorder client;
  const auto subscribe = [&] { manager.subscribe(Names{"Both"}, Names{"Both"}, clientFor(client)); };
  std::thread first;
  std::thread second;
  {
    DispatcherHold hold;
    first = std::thread(subscribe);
    ASSERT_TRUE(eventually([&] { return manager.getPendingEventCount() == 1; }));
    second = std::thread(subscribe);
    eventually([&] { return manager.getPendingEventCount() == 2; }, std::chrono::milliseconds(500));
    manager.publish(NamedEvent("Both", 1), false);
  }
  first.join();
  second.join();
  manager.publish(NamedEvent("Both", 2), true);
  EXPECT_EQ(client.payloads(), (std::vector<int>{1, 2}));
  EXPECT_EQ(defaultManager().getMailerCount(), 1U);
}

// Mailers order by client (clientLess: one class by object address, whatever the handler; clients of different
// classes each less than the other), then delayed set, then trigger set, name by name; the same client and names in
// another order or repeated are equivalent.
TEST(ProxyMailer, OrderingFollowsClientThenSets) {
  Recorder a;
  Recorder b;
  const EventMgr::ClientPtr clientA = clientFor(a);
  const ProxyMailer p(Names{"P"}, Names{"S"}, clientA);
  const ProxyMailer pq(Names{"Q", "P"}, Names{"S"}, clientA);
  const ProxyMailer pT(Names{"P"}, Names{"T"}, clientA);
  // The same object with another handler is the same client.
  const ProxyMailer same(Names{"P", "P"}, Names{"S"},
                         EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&a, nullptr)));
  EXPECT_TRUE(p < pq && !(pq < p));
  EXPECT_TRUE(p < pT && !(pT < p));
  const ProxyMailer qA(Names{"Q"}, Names{"A"}, clientA);  // The delayed set decides before the trigger set.
  EXPECT_TRUE(pT < qA && !(qA < pT));
  EXPECT_TRUE(!(p < same) && !(same < p));
  const ProxyMailer forB(Names{"A"}, Names{"S"}, clientFor(b));
  EXPECT_EQ(p < forB, &a < &b);  // Same client class: the instance decides before the sets.
  EXPECT_EQ(forB < p, &b < &a);
  const ProxyMailer otherClass(Names{"P"}, Names{"S"},
                               EventMgr::ClientPtr(new ClientAdapter<Recorder, BaseEvent>(&a, &Recorder::onBase)));
  EXPECT_TRUE(p < otherClass && otherClass < p);
}
