// SPDX-License-Identifier: MIT
/// \file
/// EventMgr: the process-wide event manager.
///
/// ### Overview
/// Components publish events and subscribe clients by event type name.
/// EventMgr::instance() hands out the one manager of the process: the working
/// default manager while it lives and, after it has been shut down (at the
/// latest when the library is unloaded), a no-op manager whose operations do
/// nothing and whose counts are 0, so that code running during shutdown can
/// still call it safely.
///
/// The default manager owns one worker thread, the dispatcher thread. Every
/// delivery to a subscriber and every change of the subscriptions runs on it.
/// Other threads hand it work through a queue; requests that must finish
/// before the caller goes on (subscribe, unSubscribe from another thread, a
/// synchronous publish) wait while the caller polls every millisecond,
/// running any function that the dispatcher hands to the main thread
/// (ToDoAdapter) between polls.
///
/// ### Guarantees a caller may rely on
/// * publish(event, false) returns before any subscriber sees the event;
///   publish(event, true) returns after every subscriber has seen it.
/// * Events published asynchronously by one thread are delivered in the
///   order in which that thread published them.
/// * An unSubscribe from a thread other than the dispatcher overtakes events
///   that are already queued: once it returns, the client receives nothing.
/// * Subscriber code never runs under a lock of the manager.
/// * A subscriber's exception never reaches the publisher; it becomes a report
///   line printed (hxPrintf "%s") by the next thread that publishes or waits.
///   Only the latest unprinted report is kept.
///
/// ### and may not rely on
/// * the order of delivery between different publishing threads, or between
///   subscribers of different adapter classes;
/// * an asynchronous event being taken the moment it is queued: a dispatcher
///   that has just delivered the last queued event holds back for up to
///   5 microseconds, so that a stream of events from another core is taken
///   in runs. Requests that a thread waits for, and events that subscribers
///   publish, are taken at once;
/// * any event being delivered after the manager has been shut down: queued
///   events are then dropped, and waiting requesters are released without
///   their request having run.
///
/// ### Deadlocks
/// A request that waits for the dispatcher (subscribe, synchronous publish)
/// made on the dispatcher thread itself, that is from inside a subscriber,
/// throws NotifyDeadlockException before anything is queued. A request that is
/// not finished after about one minute prints a one-time deadlock report
/// (hxPuts) and goes on waiting.
///
/// ### Out of memory
/// An operation that runs out of memory throws std::bad_alloc and leaves the
/// manager as it was: nothing queued, no subscription made or removed (the
/// list forms keep what the names before the failing one did). A subscriber
/// failure whose report cannot be composed is not reported; delivery goes on.
///
/// ### Thread safety
/// Every operation may be called from any thread. The subscription operations
/// and the synchronous publish wait for the dispatcher thread, so they must
/// not be called from it (see Deadlocks). The pointer returned by instance()
/// stays valid until the library's static data is torn down (unload, or the
/// end of exit): a manager that has shut down in the meantime does nothing
/// when called, as the no-op manager does.
#ifndef VEXUTIL_EVENTMGR_EVENTMGR_H
#define VEXUTIL_EVENTMGR_EVENTMGR_H

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

/// The interface of the process-wide event manager; see EventMgr.h. Get the
/// manager with instance(); hosts never make one themselves.
class VEXUTIL_API EventMgr {
 public:
  /// A subscriber, shared between the caller and the manager.
  using ClientPtr = boost::shared_ptr<ClientProxy>;
  /// A list of event type names.
  using TypeList = std::vector<std::string>;

  /// For the library's implementations only.
  EventMgr();
  /// For the library's implementations only; the default manager is
  /// destroyed when the library is unloaded or the process exits.
  virtual ~EventMgr();
  EventMgr(const EventMgr&) = delete;
  EventMgr& operator=(const EventMgr&) = delete;

  /// The manager of the process. The first call creates the default manager
  /// and starts its dispatcher thread; concurrent first calls get the same
  /// manager. After shutdown it returns the no-op manager. Never null.
  /// \post The pointer stays valid until the library's static data is torn
  ///       down (unload, or the end of exit). Once the default manager has
  ///       shut down, calls through a pointer kept from earlier do nothing,
  ///       and instance() returns the no-op manager, also to a requester
  ///       that the shutdown has just released. In the child of a fork() made
  ///       after the default manager was created, instance() is the no-op
  ///       manager (the child has no dispatcher thread); the child exits
  ///       normally.
  /// \par Thread
  /// Any thread, the dispatcher thread included. Throws what creating the
  /// manager throws (std::bad_alloc, or boost::thread_resource_error when its
  /// thread cannot be started), leaving no thread behind; the next call
  /// tries again.
  static EventMgr* instance();

  /// Publishes a copy of `event` (made with clone()). Asynchronous (false):
  /// queues the copy and returns; it is delivered later on the dispatcher
  /// thread. Synchronous (true): returns once every subscriber has seen it.
  /// Throws NotifyDeadlockException for a synchronous publish on the
  /// dispatcher thread, and whatever clone() throws (nothing is queued then).
  /// An event whose clone() returns null is not published.
  /// \pre `event`'s class overrides clone() (see BaseEvent); a library built
  ///      with assertions aborts with a message naming the class when the
  ///      copy has another class or other type names (EventChecks.h). For a
  ///      synchronous publish: not on the dispatcher thread, and the calling
  ///      thread holds nothing that a subscriber may wait for.
  /// \post The caller may change or destroy `event` as soon as the call
  ///       returns. A synchronous publish is queued behind everything queued
  ///       before it, so those entries have been delivered when it returns.
  ///       Before it queues, the call prints a pending subscriber-failure
  ///       report; a synchronous publish also runs pending main-thread
  ///       hand-offs while it waits. After shutdown the call does nothing.
  /// \par Thread
  /// Any thread. The asynchronous form also on the dispatcher thread (from
  /// inside a subscriber), where it never waits.
  virtual void publish(const BaseEvent& event, bool synchronous) = 0;

  /// publish(event, true).
  /// \par Thread
  /// Any thread but the dispatcher thread (NotifyDeadlockException there).
  virtual void publish(const BaseEvent& event) = 0;

  /// Number of client subscriptions (one per client and type name), not
  /// counting the manager's own internal subscription.
  /// \post A combined subscription counts once per type name it listens to.
  ///       The value is a snapshot; 0 for the no-op manager.
  /// \par Thread
  /// Any thread; never waits for the dispatcher.
  virtual unsigned int getSubscriptionCount() const = 0;

  /// Number of events waiting in the queue.
  /// \post Counts queued requests (subscribe, synchronous publish) as well,
  ///       but not the entry that is being delivered. A snapshot; 0 for the
  ///       no-op manager.
  /// \par Thread
  /// Any thread; never waits for the dispatcher.
  virtual unsigned int getPendingEventCount() const = 0;

  /// True on the dispatcher thread and on the host's main thread.
  /// \post The main thread is the one for which hxIsSignalThread() is
  ///       non-zero. The no-op manager returns false.
  /// \par Thread
  /// Any thread.
  virtual bool isDispatchOrMainThread() const = 0;

  /// Subscribes `client` to events whose type list contains `eventType`, and
  /// returns once the subscription is in force. Subscribing the same
  /// subscriber (same class and instance id) to one type twice leaves one
  /// subscription. A null client or an empty type name is a no-op.
  /// Every event's type list ends with "BaseEvent", the manager's internal
  /// requests ("ActionContainerEvent") included, so a client of "BaseEvent"
  /// is handed those as well; a ClientAdapter whose Event is a host class
  /// filters them out by its type test.
  /// Throws NotifyDeadlockException on the dispatcher thread.
  /// \pre The client's identities do not change while it is subscribed, and
  ///      whatever its notify() uses stays alive until it is unsubscribed.
  /// \post The manager holds `client` until it is unsubscribed or the manager
  ///       shuts down. An event published after the call returns reaches the
  ///       client. If the manager shuts down meanwhile, the call returns
  ///       without the subscription having been made.
  /// \par Thread
  /// Any thread but the dispatcher thread; it waits for the dispatcher.
  virtual void subscribe(const std::string& eventType, const ClientPtr& client) = 0;

  /// subscribe() for each name of `eventTypes`, in order.
  /// \post If the manager shuts down while a name waits, the call returns
  ///       at once: that name and the later ones are not subscribed, and the
  ///       call touches the shut-down manager no more.
  /// \par Thread
  /// As subscribe(); on the dispatcher thread it throws before subscribing
  /// any name.
  virtual void subscribe(const TypeList& eventTypes, const ClientPtr& client) = 0;

  /// Combined subscription: events of `delayedInputTypes` are held back and
  /// handed to `client`, one by one in arrival order, when an event of one of
  /// `triggerInputTypes` arrives; a type in both lists is held back and
  /// triggers at once. Subscribing the same lists and client twice, also from
  /// two threads at once, leaves one combined subscription (the later call
  /// waits for the earlier one). A null client is a no-op.
  /// Throws NotifyDeadlockException on the dispatcher thread.
  /// \pre As subscribe().
  /// \post The subscription (a ProxyMailer owned by the manager) is in force
  ///       for every listed name when the call returns. The client receives
  ///       the mailer's copies of the held-back events, never trigger events.
  ///       If the manager shuts down while a name waits, the call returns
  ///       without a subscription.
  /// \par Thread
  /// Any thread but the dispatcher thread; it waits for the dispatcher once
  /// per listed name.
  virtual void subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                         const ClientPtr& client) = 0;

  /// Removes the subscription of the same subscriber to `eventType`. From
  /// another thread it overtakes queued events and returns once the client
  /// will receive nothing more of that type; on the dispatcher thread (inside
  /// a subscriber) it takes effect at once and does not disturb the delivery
  /// in progress. Removing what was never subscribed is a no-op.
  /// \pre `client` need only have the same identities as the subscribed one;
  ///      it may be a new proxy.
  /// \post From another thread: once it returns, the subscribed object may
  ///       be destroyed as far as this type name is concerned; this holds
  ///       while the manager shuts down too (through instance() or a pointer
  ///       kept from before), where the call returns once the shutdown has
  ///       ended the delivery in progress. On the
  ///       dispatcher thread (inside a subscriber): the delivery in progress
  ///       works on a snapshot of the subscribers and still calls the client
  ///       if it comes later in that delivery, so the object may be destroyed
  ///       only after that delivery has ended (from a later event, or from
  ///       another thread). Never throws NotifyDeadlockException; throws
  ///       std::bad_alloc, with nothing removed, if memory runs out.
  /// \par Thread
  /// Any thread, the dispatcher thread included. From other threads it waits
  /// for the dispatcher.
  virtual void unSubscribe(const std::string& eventType, const ClientPtr& client) = 0;

  /// unSubscribe() for each name of `eventTypes`, in order.
  /// \post If the manager shuts down while a name waits, the call returns
  ///       at once (the shutdown has dropped every subscription anyway).
  /// \par Thread
  /// As unSubscribe().
  virtual void unSubscribe(const TypeList& eventTypes, const ClientPtr& client) = 0;

  /// Removes the combined subscription made with the same lists (in any order,
  /// with any repetition) and the same subscriber; stored events are dropped.
  /// No match, or a null client, is a no-op.
  /// Throws NotifyDeadlockException on the dispatcher thread (unless both
  /// lists are empty, which can match nothing that waits for the dispatcher).
  /// \post The client receives nothing more through this combined
  ///       subscription, and nothing twice while the call runs.
  /// \par Thread
  /// Any thread but the dispatcher thread; it waits for the dispatcher
  /// several times.
  virtual void unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                           const ClientPtr& client) = 0;

  /// Subscribes `handler` of `target` to `eventType`. The handler is called
  /// for events whose type list contains Event::typeName(). A null target or
  /// handler is a no-op. The target must stay alive until it is unsubscribed.
  /// Event is checked at compile time (EventChecks.h). The subscribe
  /// functions of Subscription.h return a handle that unsubscribes itself.
  /// \pre As subscribe(const std::string&, const ClientPtr&).
  /// \post The subscriber is identified by `target` and the Target/Event
  ///       pair: subscribing another member function of the same pair to
  ///       the same name keeps the first one.
  /// \par Thread
  /// Any thread but the dispatcher thread (NotifyDeadlockException there).
  template <typename Target, typename Event>
  void subscribe(const std::string& eventType, Target* target, void (Target::*handler)(const Event&)) {
    if (target == nullptr || handler == nullptr) {
      return;
    }
    subscribe(eventType, ClientPtr(new ClientAdapter<Target, Event>(target, handler)));
  }

  /// Removes the subscription of `target` (for this Target/Event pair) to
  /// `eventType`; the handler named here need not be the one subscribed.
  /// A null target is a no-op.
  /// \par Thread
  /// Any thread, the dispatcher thread included (there it takes effect at
  /// once).
  template <typename Target, typename Event>
  void unSubscribe(const std::string& eventType, Target* target, void (Target::*handler)(const Event&)) {
    if (target == nullptr) {
      return;
    }
    unSubscribe(eventType, ClientPtr(new ClientAdapter<Target, Event>(target, handler)));
  }
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_EVENTMGR_H
