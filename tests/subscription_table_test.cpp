// SPDX-License-Identifier: MIT
// The subscription table on its own, driven from the test thread as the
// dispatcher thread drives it.
#include "FailureReport.h"
#include "SubscriptionTable.h"
#include "UnitTest.h"

namespace {

struct Fixture {
  FailureReport failures;
  SubscriptionTable table{failures, "Internal"};
  std::vector<Recorder> recorders = std::vector<Recorder>(3);
  std::vector<EventMgr::ClientPtr> clients;
  std::vector<int> calls;  // Which recorder was called, in call order.
  Fixture() {
    for (int i = 0; i < 3; ++i) {
      recorders[i].setAction([this, i](const BaseEvent&) { calls.push_back(i); });
      clients.push_back(clientFor(recorders[i]));
    }
  }
  // The recorders' indices in client order.
  std::vector<int> inClientOrder() const {
    std::vector<int> order{0, 1, 2};
    std::sort(order.begin(), order.end(), [this](int a, int b) { return ClientOrder()(clients[a], clients[b]); });
    return order;
  }
};

}  // namespace

// Subscribers are called in client order whatever the order of subscribing; a second proxy of the same
// subscriber is dropped; subscriptions to the uncounted name are not counted; remove() and clear() end them.
TEST(SubscriptionTable, DeliversInClientOrderCountsAndDropsDuplicates) {
  Fixture f;
  for (int i = 2; i >= 0; --i) {
    f.table.add("TestEvent", f.clients[i]);
  }
  f.table.add("TestEvent", clientFor(f.recorders[1]));
  f.table.add("Internal", f.clients[0]);
  EXPECT_EQ(f.table.subscriptionCount(), 3U);
  f.table.deliver(TestEvent(1));
  EXPECT_EQ(f.calls, f.inClientOrder());
  f.table.remove("TestEvent", clientFor(f.recorders[1]));  // Another proxy of the same subscriber.
  EXPECT_EQ(f.table.subscriptionCount(), 2U);
  f.calls.clear();
  f.table.deliver(TestEvent(2));
  EXPECT_EQ(f.calls.size(), 2U);
  EXPECT_EQ(std::count(f.calls.begin(), f.calls.end(), 1), 0);
  f.table.clear();
  EXPECT_EQ(f.table.subscriptionCount(), 0U);
  f.table.deliver(TestEvent(3));
  EXPECT_EQ(f.calls.size(), 2U);
}

// A subscriber that changes the table from inside notify() leaves the delivery in progress as it was
// (the removed subscriber is still called, the added one not yet); the next event sees the change.
// A subscriber that throws is reported and the next one is still called.
TEST(SubscriptionTable, ChangesDuringADeliveryApplyFromTheNextEventAndFailuresAreReported) {
  Fixture f;
  const std::vector<int> order = f.inClientOrder();
  const int first = order[0];
  const int last = order[2];
  f.table.add("TestEvent", f.clients[first]);
  f.table.add("TestEvent", clientFor(f.recorders[last]));  // The table holds the only share of this proxy.
  f.recorders[first].setAction([&](const BaseEvent&) {
    f.calls.push_back(first);
    f.table.remove("TestEvent", clientFor(f.recorders[last]));  // Frees the proxy once no delivery holds it.
    f.table.add("TestEvent", f.clients[order[1]]);
    throw std::runtime_error("subscriber failure");
  });
  f.table.deliver(TestEvent(1));
  EXPECT_EQ(f.calls, (std::vector<int>{first, last}));
  EXPECT_TRUE(f.failures.isPending());
  f.recorders[first].setAction([&](const BaseEvent&) { f.calls.push_back(first); });
  f.calls.clear();
  f.table.deliver(TestEvent(2));
  EXPECT_EQ(f.calls, (std::vector<int>{first, order[1]}));
}
