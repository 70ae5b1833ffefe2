// SPDX-License-Identifier: MIT
// SubscriptionTable: who is subscribed to which event type name, and the
// delivery of an event to them.
//
// Per type name the table holds the set of subscribed clients in ClientOrder
// (a second proxy of the same subscriber is dropped) and the same clients as
// a flat array, which is what deliveries walk. Each entry is shared with the
// deliveries that use it and copied only when it changes while a delivery
// holds it, so a delivery never copies n clients, and a subscriber may change
// the subscriptions from inside notify() without disturbing the delivery in
// progress: the change applies from the next event on.
//
// A subscriber that throws does not stop the delivery: the failure is stored
// in the FailureReport given to the constructor and the next subscriber is
// called.
//
// Thread safety
//   Not thread-safe, by design: every operation except subscriptionCount()
//   runs on the dispatcher thread (or while no dispatcher runs), which is what
//   lets the entries be shared without atomic counts. subscriptionCount() may
//   be read from any thread. No lock is held while a subscriber runs.
#ifndef VEXUTIL_EVENTMGR_SRC_SUBSCRIPTIONTABLE_H
#define VEXUTIL_EVENTMGR_SRC_SUBSCRIPTIONTABLE_H

#include <atomic>
#include <cstddef>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/local_shared_ptr.hpp>

#include "ClientOrder.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

class FailureReport;

class SubscriptionTable {
 public:
  using ClientPtr = boost::shared_ptr<ClientProxy>;

  // Failures of subscribers go to `failures`, which must outlive the table.
  // Subscriptions to `uncountedType` are left out of subscriptionCount().
  SubscriptionTable(FailureReport& failures, std::string uncountedType);
  SubscriptionTable(const SubscriptionTable&) = delete;
  SubscriptionTable& operator=(const SubscriptionTable&) = delete;

  // Subscribes `client` to `eventType`; a client that is already subscribed
  // keeps its entry and `client` is dropped. A null client does nothing.
  // Strong guarantee: throws std::bad_alloc with nothing changed.
  void add(const std::string& eventType, const ClientPtr& client);
  // Removes the same subscriber from `eventType`, if it is there. Strong
  // guarantee, as add().
  void remove(const std::string& eventType, const ClientPtr& client);
  // Calls notify(event) of every subscriber of every type name of `event`,
  // name by name in the event's order and, per name, in ClientOrder. Never
  // throws: a failure becomes the stored report, and a report that cannot be
  // composed for lack of memory is dropped.
  void deliver(const BaseEvent& event) noexcept;
  // Drops every subscription, and the memory of the table with them.
  void clear() noexcept;
  // The subscriptions of clients, without those to the uncounted type.
  unsigned int subscriptionCount() const noexcept { return count_.load(std::memory_order_acquire); }

 private:
  using ClientSet = std::set<ClientPtr, ClientOrder>;

  // The subscribers of one type name. The array is rebuilt by the first
  // delivery after a change; an entry is only changed in place while no
  // delivery holds it. The set is kept beside the array because it keeps
  // subscribe and unsubscribe logarithmic at any size: a sorted array alone
  // made a subscribe to a type with some 100,000 subscribers 1.8 times as
  // slow, and withdrawing them all quadratic.
  struct Subscribers {
    Subscribers() = default;
    explicit Subscribers(ClientSet set) : clients(std::move(set)) {}
    // Rebuilds deliveryOrder; false, with the array empty, if memory runs out.
    bool tryBuildDeliveryOrder() noexcept;

    ClientSet clients;
    std::vector<ClientProxy*> deliveryOrder;  // Owned by `clients`.
    bool deliveryOrderCurrent = false;
  };
  // Counted without atomic operations: only the dispatcher thread copies or
  // drops these pointers.
  using Entry = boost::local_shared_ptr<Subscribers>;

  // Walks the subscribers of every name of `event`, calling
  // notifyOne(client, position) for each.
  template <typename NotifyOne>
  void walk(const BaseEvent& event, NotifyOne notifyOne) noexcept;
  // deliver() while no slow-notify threshold is set and no tracer listens:
  // the walk that times nothing.
  void deliverUntimed(const BaseEvent& event) noexcept;
  // deliver() while a slow-notify threshold is set: the first notify()
  // starts at `tick`.
  void deliverTicked(const BaseEvent& event, std::int64_t tick) noexcept;
  // Calls client.notify(event); a failure becomes the stored report.
  void notify(const ClientProxy& client, const BaseEvent& event, std::size_t position) noexcept;
  // Counts a subscription of `eventType` made (+1) or ended (-1).
  void count(const std::string& eventType, int delta) noexcept;

  std::unordered_map<std::string, Entry> entries_;
  std::atomic<unsigned int> count_{0};
  FailureReport& failures_;
  const std::string uncountedType_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_SUBSCRIPTIONTABLE_H
