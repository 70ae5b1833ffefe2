// SPDX-License-Identifier: MIT
/// \file
/// Subscriptions that end themselves: subscribe functions that return a
/// Subscription handle, for a callable (a lambda) or a member function, for
/// one type name, a list of names, or a combined subscription.
///
/// ### Overview
///     Subscription edits = subscribe([&](const EditEvent& e) { count(e); });
///     Subscription docs = subscribe(TypeList{"EditEvent", "CommitEvent"}, this, &Editor::onDocument);
///     Subscription batch = subscribeCombined({"EditEvent"}, {"CommitEvent"}, this, &Editor::onEdit);
/// A subscription lasts as long as its handle: destroying or resetting the
/// handle withdraws exactly the subscriptions that this call made, nothing
/// else. Without a type name, the name is that of the class the handler takes
/// (a lambda's parameter `const MyEvent&` gives MyEvent::typeName()).
/// The handler is called for an event whose type list contains the handler
/// class's name, cast to that class, as ClientAdapter does. All functions work
/// on EventMgr::instance() at the time of the call (and of the reset): after
/// the manager has shut down they do nothing.
///
/// Each call makes subscribers of its own: two calls with the same lambda or
/// the same object and member function are two subscriptions, each withdrawn
/// by its own handle (unlike EventMgr's raw forms, which count one object and
/// handler class once). A combined subscription keeps its own held-back events
/// and hands them over exactly as EventMgr's two-list subscribe does
/// (ProxyMailer); it is not entered in the manager's set of combined
/// subscriptions, so the raw two-list unSubscribe does not reach it.
///
/// ### When a handle is reset
/// * From any thread but the dispatcher thread: reset() returns once the
///   subscriptions are withdrawn. No call of the handler is running then and
///   none follows, so what the handler uses may be destroyed at once.
/// * On the dispatcher thread, that is inside any handler (the handle's own
///   included): the subscriptions are withdrawn at once, and the handler is
///   not called again, not even by the delivery in progress. That delivery
///   still holds its snapshot of the subscribers, which keeps the handler's
///   callable (and a combined subscription's held-back events) alive until it
///   ends, so a lambda may destroy its own handle and go on using its
///   captures until it returns. A member function's object may be destroyed
///   once the handler that resets the handle is not running on it.
/// * The handler may be running on the dispatcher thread while another thread
///   resets the handle; reset() waits until that delivery is over.
/// Subscribing throws NotifyDeadlockException on the dispatcher thread, as
/// EventMgr::subscribe does; a subscribe that throws withdraws what it made.
///
/// ### Checks
/// The handler's event class is checked at compile time as EventChecks.h
/// says. A callable whose parameter is not `const MyEvent&` (a generic lambda,
/// a by-value parameter) needs the class named: `subscribe<MyEvent>(...)`.
///
/// ### Thread safety
/// Subscription: one handle must not be used by two threads at once; distinct
/// handles are independent. A handle may be reset or destroyed on any thread,
/// the dispatcher thread included, also after the manager has shut down.
/// The subscribe functions may be called from any thread but the dispatcher
/// thread.
#ifndef VEXUTIL_EVENTMGR_SUBSCRIPTION_H
#define VEXUTIL_EVENTMGR_SUBSCRIPTION_H

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/EventChecks.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/HandleClient.h"

namespace vexutil {
namespace eventmgr {

/// A list of event type names.
using TypeList = std::vector<std::string>;

/// Owns subscriptions made by the functions of Subscription.h and withdraws
/// them when it is destroyed or reset; see Subscription.h for what holds then.
/// Movable, not copyable. A default-constructed or moved-from handle owns
/// nothing.
///
/// Thread safety: one handle must not be used by two threads at once; it may
/// be reset or destroyed on any thread, the dispatcher thread included.
class VEXUTIL_API Subscription {
 public:
  Subscription() noexcept = default;
  Subscription(Subscription&& other) noexcept;
  /// Withdraws what this handle owns, then takes over `other`'s.
  Subscription& operator=(Subscription&& other) noexcept;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  /// reset().
  ~Subscription();

  /// Withdraws every subscription that this handle owns; it then owns none.
  /// Never throws: a withdrawal that fails (out of memory) is tried again
  /// until it gets through.
  /// \post No later call of the handler starts. From a thread other than the
  ///       dispatcher thread, none is running either.
  /// \par Thread
  /// Any thread. Off the dispatcher thread it waits for the dispatcher once
  /// per type name.
  void reset() noexcept;

  /// True while the handle owns subscriptions.
  bool active() const noexcept { return !entries_.empty(); }
  explicit operator bool() const noexcept { return active(); }

  /// For the subscribe functions below: subscribes `client` to each of
  /// `eventTypes` in order and returns the handle that owns them. If one
  /// name fails, the names before it are withdrawn and the exception passes
  /// on. Empty names are skipped (the manager ignores them).
  /// \par Thread
  /// Any thread but the dispatcher thread (NotifyDeadlockException there).
  static Subscription make(const TypeList& eventTypes, const boost::shared_ptr<detail::HandleClient>& client);

  /// For subscribeCombined: events of `delayedInputTypes` are held back and
  /// handed to `client` one by one, in arrival order, when an event of
  /// `triggerInputTypes` arrives; a name in both lists is held back and
  /// triggers at once. As make() otherwise.
  static Subscription makeCombined(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                   const boost::shared_ptr<detail::HandleClient>& client);

 private:
  struct Entry {
    std::string eventType;
    boost::shared_ptr<detail::HandleClient> client;
  };
  // Subscribes the entries in order; on failure withdraws them and rethrows.
  void subscribeAll();

  std::vector<Entry> entries_;
};

/// Subscribes `callable` to `eventType`. The callable takes `const Event&`
/// (deduced from a lambda's parameter, or named as the first template
/// argument) and is called, on the dispatcher thread, for events whose type
/// list contains Event::typeName().
/// \pre Whatever the callable uses stays alive until the handle is reset.
/// \post The subscription is in force when the call returns.
/// \par Thread
/// Any thread but the dispatcher thread (NotifyDeadlockException there).
template <typename Event = detail::Unnamed, typename Callable>
Subscription subscribe(const std::string& eventType, Callable&& callable) {
  using Handled = detail::HandlerEvent<Event, Callable>;
  return Subscription::make(TypeList{eventType}, detail::makeCallableClient<Handled>(std::forward<Callable>(callable)));
}

/// As above, for each name of `eventTypes` (write `TypeList{"A", "B"}`).
/// An event reaches the callable once per listed name in its type list.
template <typename Event = detail::Unnamed, typename Callable>
Subscription subscribe(const TypeList& eventTypes, Callable&& callable) {
  using Handled = detail::HandlerEvent<Event, Callable>;
  return Subscription::make(eventTypes, detail::makeCallableClient<Handled>(std::forward<Callable>(callable)));
}

/// As above, to the name of the event class: Event::typeName().
template <typename Event = detail::Unnamed, typename Callable>
Subscription subscribe(Callable&& callable) {
  using Handled = detail::HandlerEvent<Event, Callable>;
  return Subscription::make(TypeList{detail::typeNameOf<Handled>()},
                            detail::makeCallableClient<Handled>(std::forward<Callable>(callable)));
}

/// Subscribes `handler` of `target` to `eventType`. A null target or handler
/// gives an empty handle and subscribes nothing.
/// \pre `target` stays alive until the handle is reset.
template <typename Target, typename Event>
Subscription subscribe(const std::string& eventType, Target* target, void (Target::*handler)(const Event&)) {
  return subscribe(TypeList{eventType}, target, handler);
}

/// As above, for each name of `eventTypes`.
template <typename Target, typename Event>
Subscription subscribe(const TypeList& eventTypes, Target* target, void (Target::*handler)(const Event&)) {
  static_assert(isCheckedEventClass<Event>());
  if (target == nullptr || handler == nullptr) {
    return {};
  }
  return Subscription::make(eventTypes, detail::makeMemberClient(target, handler));
}

/// As above, to Event::typeName().
template <typename Target, typename Event>
Subscription subscribe(Target* target, void (Target::*handler)(const Event&)) {
  static_assert(isCheckedEventClass<Event>());
  return subscribe(TypeList{Event::typeName()}, target, handler);
}

/// Combined subscription: events of `delayedInputTypes` are held back and
/// handed to the callable one by one, in arrival order, when an event of
/// `triggerInputTypes` arrives (the trigger itself is not handed over); a
/// name in both lists is held back and triggers at once. The callable sees
/// copies of the events, and only those of its event class.
/// \par Thread
/// Any thread but the dispatcher thread (NotifyDeadlockException there).
template <typename Event = detail::Unnamed, typename Callable>
Subscription subscribeCombined(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                               Callable&& callable) {
  using Handled = detail::HandlerEvent<Event, Callable>;
  return Subscription::makeCombined(delayedInputTypes, triggerInputTypes,
                                    detail::makeCallableClient<Handled>(std::forward<Callable>(callable)));
}

/// As above, for a member function. A null target or handler gives an empty
/// handle and subscribes nothing.
template <typename Target, typename Event>
Subscription subscribeCombined(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes, Target* target,
                               void (Target::*handler)(const Event&)) {
  static_assert(isCheckedEventClass<Event>());
  if (target == nullptr || handler == nullptr) {
    return {};
  }
  return Subscription::makeCombined(delayedInputTypes, triggerInputTypes, detail::makeMemberClient(target, handler));
}

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SUBSCRIPTION_H
