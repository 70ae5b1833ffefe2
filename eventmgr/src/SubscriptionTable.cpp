// SPDX-License-Identifier: MIT
#include "SubscriptionTable.h"

#include <cstdint>
#include <new>
#include <utility>

#include <boost/smart_ptr/make_local_shared.hpp>

#include "Corvane/System/IUserException.h"
#include "DiagnosticsHooks.h"
#include "FailureReport.h"

namespace vexutil {
namespace eventmgr {

namespace {

// How many subscribers ahead a delivery asks for the next proxy's memory.
constexpr std::size_t kPrefetchAhead = 16;

}  // namespace

SubscriptionTable::SubscriptionTable(FailureReport& failures, std::string uncountedType)
    : failures_(failures), uncountedType_(std::move(uncountedType)) {}

bool SubscriptionTable::Subscribers::tryBuildDeliveryOrder() noexcept {
  deliveryOrder.clear();
  try {
    deliveryOrder.reserve(clients.size());
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (const ClientPtr& client : clients) {
    deliveryOrder.push_back(client.get());
  }
  deliveryOrderCurrent = true;
  return true;
}

void SubscriptionTable::count(const std::string& eventType, int delta) noexcept {
  if (eventType != uncountedType_) {
    count_.fetch_add(static_cast<unsigned int>(delta), std::memory_order_acq_rel);
  }
}

void SubscriptionTable::add(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  // Every step that may run out of memory comes before the table changes: an
  // entry is put in only once it is complete.
  const auto found = entries_.find(eventType);
  if (found == entries_.end()) {
    Entry created = boost::make_local_shared<Subscribers>();
    created->clients.insert(client);
    entries_.emplace(eventType, std::move(created));
  } else {
    Entry& subscribers = found->second;
    if (subscribers->clients.find(client) != subscribers->clients.end()) {
      return;  // The same subscriber keeps its entry; the new proxy is dropped without a report.
    }
    if (subscribers.local_use_count() > 1) {
      // A delivery holds this entry: change a copy and leave its snapshot alone.
      Entry copy = boost::make_local_shared<Subscribers>(subscribers->clients);
      copy->clients.insert(client);
      subscribers = std::move(copy);
    } else {
      subscribers->clients.insert(client);
      subscribers->deliveryOrderCurrent = false;
    }
  }
  count(eventType, 1);
  // diagnostics hook: subscribe tracepoint
  diagnostics::noteSubscription(eventType, *client, true);
}

void SubscriptionTable::remove(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  const auto found = entries_.find(eventType);
  if (found == entries_.end()) {
    return;
  }
  Entry& subscribers = found->second;
  auto member = subscribers->clients.find(client);
  if (member == subscribers->clients.end()) {
    return;
  }
  if (subscribers.local_use_count() > 1) {
    subscribers = boost::make_local_shared<Subscribers>(subscribers->clients);
    member = subscribers->clients.find(client);
  }
  subscribers->clients.erase(member);
  subscribers->deliveryOrderCurrent = false;
  count(eventType, -1);
  // diagnostics hook: unsubscribe tracepoint
  diagnostics::noteSubscription(eventType, *client, false);
  if (subscribers->clients.empty()) {
    entries_.erase(found);
  }
}

void SubscriptionTable::clear() noexcept {
  // Swapped out rather than cleared, so that the buckets go too.
  decltype(entries_)().swap(entries_);
  count_.store(0, std::memory_order_release);
}

void SubscriptionTable::notify(const ClientProxy& client, const BaseEvent& event, std::size_t position) noexcept {
  try {
    client.notify(event);
  } catch (const Corvane::System::IUserException& failure) {
    failures_.store(event, position, client, &failure);
  } catch (...) {
    failures_.store(event, position, client, nullptr);
  }
}

template <typename NotifyOne>
void SubscriptionTable::walk(const BaseEvent& event, NotifyOne notifyOne) noexcept {
  for (const std::string& eventType : event.getTypes()) {
    const auto found = entries_.find(eventType);
    if (found == entries_.end()) {
      continue;
    }
    // diagnostics hook: the event has subscribers
    diagnostics::noteSubscribersFound();
    // The snapshot: subscribers may change the table from inside notify().
    // Such a change goes to a copy of the entry while this one is held, so
    // the clients walked here stay as they are and stay alive.
    const Entry subscribers = found->second;
    if (!subscribers->deliveryOrderCurrent && !subscribers->tryBuildDeliveryOrder()) {
      // No memory for the flat array: walk the set itself, in the same order.
      std::size_t position = 0;
      for (const ClientPtr& client : subscribers->clients) {
        notifyOne(*client, position++);
      }
      continue;
    }
    ClientProxy* const* const clients = subscribers->deliveryOrder.data();
    const std::size_t size = subscribers->deliveryOrder.size();
    for (std::size_t position = 0; position < size; ++position) {
      // The proxies lie wherever they were allocated; asking for one a few
      // places ahead keeps a long walk from waiting on memory at every step.
      if (position + kPrefetchAhead < size) {
        __builtin_prefetch(clients[position + kPrefetchAhead]);
      }
      notifyOne(*clients[position], position);
    }
  }
}

// The untimed and the ticked walks are functions of their own, never inlined
// into deliver(): beside the others, the untimed walk was compiled less
// tightly, and an asynchronous stream to 1000 subscribers took 10 % longer
// with the diagnostics idle than without them. The ticked walk takes its tick
// by value, so that the tick stays in a register across the notify() calls.
__attribute__((noinline)) void SubscriptionTable::deliverUntimed(const BaseEvent& event) noexcept {
  walk(event, [this, &event](const ClientProxy& client, std::size_t position) { notify(client, event, position); });
}

__attribute__((noinline)) void SubscriptionTable::deliverTicked(const BaseEvent& event, std::int64_t tick) noexcept {
  walk(event, [this, &event, &tick](const ClientProxy& client, std::size_t position) {
    notify(client, event, position);
    diagnostics::NotifyTimer::tickedEnd(client, event, tick);
  });
}

void SubscriptionTable::deliver(const BaseEvent& event) noexcept {
  // diagnostics hook: notify start and end (tracepoints, slow-notify threshold),
  // decided once per event; while idle the walk is the plain one.
  const diagnostics::NotifyTimer timer;
  switch (timer.mode()) {
    case diagnostics::NotifyTimer::Mode::kIdle:
      deliverUntimed(event);
      return;
    case diagnostics::NotifyTimer::Mode::kTicked:
      deliverTicked(event, timer.firstTick());
      return;
    case diagnostics::NotifyTimer::Mode::kTraced:
      walk(event, [this, &event](const ClientProxy& client, std::size_t position) {
        const std::int64_t notifyStart = diagnostics::NotifyTimer::tracedStart(client, event);
        notify(client, event, position);
        diagnostics::NotifyTimer::tracedEnd(client, event, notifyStart);
      });
      return;
  }
}

}  // namespace eventmgr
}  // namespace vexutil
