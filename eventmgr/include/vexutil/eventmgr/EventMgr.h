// EventMgr: the process-wide event manager.
//
// Overview
//   Components publish events and subscribe clients by event type name.
//   EventMgr::instance() hands out the one manager of the process: the working
//   default manager while it lives and, after it has been shut down (at the
//   latest when the library is unloaded), a no-op manager whose operations do
//   nothing and whose counts are 0, so that code running during shutdown can
//   still call it safely.
//
//   The default manager owns one worker thread, the dispatcher thread. Every
//   delivery to a subscriber and every change of the subscriptions runs on
//   it. Other threads hand it work through a queue; requests that must finish
//   before the caller goes on (subscribe, unSubscribe from another thread, a
//   synchronous publish) wait while the caller polls every millisecond,
//   running any function that the dispatcher hands to the main thread
//   (ToDoAdapter) between polls.
//
// Guarantees a caller may rely on
//   * publish(event, false) returns before any subscriber sees the event;
//     publish(event, true) returns after every subscriber has seen it.
//   * Events published asynchronously by one thread are delivered in the
//     order in which that thread published them.
//   * An unSubscribe from a thread other than the dispatcher overtakes events
//     that are already queued: once it returns, the client receives nothing.
//   * Subscriber code never runs under a lock of the manager.
//   * A subscriber's exception never reaches the publisher; it becomes a
//     report line printed (hxPrintf "%s") by the next thread that publishes or
//     waits. Only the latest unprinted report is kept.
// and may not rely on
//   * the order of delivery between different publishing threads, or between
//     subscribers of different adapter classes;
//   * any event being delivered after the manager has been shut down: queued
//     events are then dropped, and waiting requesters are released without
//     their request having run.
//
// Deadlocks
//   A request that waits for the dispatcher (subscribe, synchronous publish)
//   made on the dispatcher thread itself, that is from inside a subscriber,
//   throws NotifyDeadlockException before anything is queued. A request that
//   is not finished after about one minute prints a one-time deadlock report
//   (hxPuts) and goes on waiting.
//
// Thread safety
//   Every operation may be called from any thread. The subscription
//   operations and the synchronous publish wait for the dispatcher thread, so
//   they must not be called from it (see Deadlocks). The pointer returned by
//   instance() stays valid until the library is unloaded; using it after the
//   host has let the library go is undefined.
//   Locks, for those who read the implementation: the instance mutex is taken
//   before a manager's queue mutex, which is taken before the dispatcher's
//   start/stop mutex, which is taken before an action's completion mutex.
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

class VEXUTIL_API EventMgr {
 public:
  using ClientPtr = boost::shared_ptr<ClientProxy>;
  using TypeList = std::vector<std::string>;

  EventMgr();
  virtual ~EventMgr();
  EventMgr(const EventMgr&) = delete;
  EventMgr& operator=(const EventMgr&) = delete;

  // The manager of the process. The first call creates the default manager
  // and starts its dispatcher thread; concurrent first calls get the same
  // manager. After shutdown it returns the no-op manager. Never null.
  static EventMgr* instance();

  // Publishes a copy of `event` (made with clone()). Asynchronous (false):
  // queues the copy and returns; it is delivered later on the dispatcher
  // thread. Synchronous (true): returns once every subscriber has seen it.
  // Throws NotifyDeadlockException for a synchronous publish on the
  // dispatcher thread, and whatever clone() throws (nothing is queued then).
  // An event whose clone() returns null is not published.
  virtual void publish(const BaseEvent& event, bool synchronous) = 0;

  // publish(event, true).
  virtual void publish(const BaseEvent& event) = 0;

  // Number of client subscriptions (one per client and type name), not
  // counting the manager's own internal subscription.
  virtual unsigned int getSubscriptionCount() const = 0;

  // Number of events waiting in the queue.
  virtual unsigned int getPendingEventCount() const = 0;

  // True on the dispatcher thread and on the host's main thread.
  virtual bool isDispatchOrMainThread() const = 0;

  // Subscribes `client` to events whose type list contains `eventType`, and
  // returns once the subscription is in force. Subscribing the same
  // subscriber (same class and instance id) to one type twice leaves one
  // subscription. A null client or an empty type name is a no-op.
  // Throws NotifyDeadlockException on the dispatcher thread.
  virtual void subscribe(const std::string& eventType, const ClientPtr& client) = 0;

  // subscribe() for each name of `eventTypes`, in order.
  virtual void subscribe(const TypeList& eventTypes, const ClientPtr& client) = 0;

  // Combined subscription: events of `delayedInputTypes` are held back and
  // handed to `client`, one by one in arrival order, when an event of one of
  // `triggerInputTypes` arrives; a type in both lists is held back and
  // triggers at once. Subscribing the same lists and client twice leaves one
  // combined subscription. A null client is a no-op.
  // Throws NotifyDeadlockException on the dispatcher thread.
  virtual void subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                         const ClientPtr& client) = 0;

  // Removes the subscription of the same subscriber to `eventType`. From
  // another thread it overtakes queued events and returns once the client
  // will receive nothing more of that type; on the dispatcher thread (inside
  // a subscriber) it takes effect at once and does not disturb the delivery
  // in progress. Removing what was never subscribed is a no-op.
  virtual void unSubscribe(const std::string& eventType, const ClientPtr& client) = 0;

  // unSubscribe() for each name of `eventTypes`, in order.
  virtual void unSubscribe(const TypeList& eventTypes, const ClientPtr& client) = 0;

  // Removes the combined subscription made with the same lists (in any order,
  // with any repetition) and the same subscriber; stored events are dropped.
  // No match, or a null client, is a no-op.
  // Throws NotifyDeadlockException on the dispatcher thread.
  virtual void unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                           const ClientPtr& client) = 0;

  // Subscribes `handler` of `target` to `eventType`. The handler is called
  // for events whose type list contains Event::typeName(). A null target or
  // handler is a no-op. The target must stay alive until it is unsubscribed.
  template <typename Target, typename Event>
  void subscribe(const std::string& eventType, Target* target, void (Target::*handler)(const Event&)) {
    if (target == nullptr || handler == nullptr) {
      return;
    }
    subscribe(eventType, ClientPtr(new ClientAdapter<Target, Event>(target, handler)));
  }

  // Removes the subscription of `target` (for this Target/Event pair) to
  // `eventType`; the handler named here need not be the one subscribed.
  // A null target is a no-op.
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
