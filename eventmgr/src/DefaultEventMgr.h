// SPDX-License-Identifier: MIT
// DefaultEventMgr: the working event manager, a coordinator of parts that
// each own one job and at most one lock:
//   * DispatchQueue: the events and requests waiting for the dispatcher
//     thread, and how that thread waits for them;
//   * SubscriptionTable: who is subscribed to what, and delivery (dispatcher
//     thread only);
//   * MailerRegistry: the combined subscriptions;
//   * SynchronousRequest: how another thread waits for a request it queued;
//   * FailureReport: the latest unprinted subscriber-failure report;
//   * EventDispatcher: the dispatcher thread itself.
// The manager adds what ties them together: a publish is queued or run as a
// request; a subscription change is a request that the dispatcher thread
// applies to the table; the dispatcher thread takes from the queue and
// delivers through the table.
//
// Lifetime
//   The owner's last share does not free the manager: it shuts it down
//   (shutDown()) and retires it. A retired manager stays allocated, inert, until
//   the library's static data is torn down (unload, or the end of exit), so a
//   thread that got the pointer from instance() just before the shutdown may
//   still call it: every operation first tries to take a share through
//   weakSelf_, finds none and does nothing. Until it is freed, nothing that
//   such a call reads (weakSelf_, dispatcher_, the mutexes) is written.
//
// Locks, in the order in which they may be nested (the one statement of the
// library's lock order; the other parts refer to it)
//   instance mutex (process-wide; creation and the whole of shutDown())
//     -> an action's SyncData mutex (a waiting requester holds it between
//        polls; shutDown() takes it to release queued requests)
//     -> EventDispatcher's start/stop mutex (held across the join)
//     -> the dispatch queue's mutex (stop() passes through it to wake the
//        dispatcher; a leaf otherwise).
//   A waiting requester also takes ToDoAdapter::toDoMutex_ while it holds its
//   SyncData mutex, and lets that mutex go before it drops a share of the
//   manager, since the drop may run shutDown(), which takes the instance mutex.
//   The failure report's mutex, the mailer registry's mutex and the shutdown
//   window's mutex (Instance.h; closed under the instance mutex) are leaves:
//   nothing is taken while they are held, and none is held while waiting for
//   the dispatcher.
//   No lock of the manager is held while a subscriber or an action runs.
#ifndef VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H
#define VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H

#include <cstddef>
#include <string>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "DispatchQueue.h"
#include "FailureReport.h"
#include "Instance.h"
#include "MailerRegistry.h"
#include "SubscriptionTable.h"
#include "SynchronousRequest.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

namespace vexutil {
namespace eventmgr {

class ActionContainerEvent;
class EventDispatcher;

class DefaultEventMgr final : public EventMgr, public ToDoAdapter {
 public:
  using EventPtr = boost::shared_ptr<BaseEvent>;
  using QueuedEvent = DispatchQueue::Entry;

  // Sets up the parts, subscribes the dispatcher to "ActionContainerEvent"
  // and starts the dispatcher thread. If anything fails, no thread is left
  // running and the exception passes out.
  DefaultEventMgr();
  // Shuts the manager down if that has not happened yet, then joins a
  // dispatcher thread that was stopped from inside a delivery.
  ~DefaultEventMgr() override;

  // Switches instance() to the no-op manager, takes the queue, stops and
  // (unless called on the dispatcher thread) joins the dispatcher, releases
  // waiting requesters without running their actions, clears the
  // subscriptions and the mailers. Runs once; later calls do nothing.
  // Takes the instance mutex. Never throws.
  void shutDown() noexcept;
  // Dispatcher thread: shutDown() and retire this manager once the delivery
  // in progress has ended. Used when a subscriber lets the last share go.
  void shutDownAfterDelivery() noexcept { shutDownAfterDelivery_ = true; }

  using EventMgr::subscribe;
  using EventMgr::unSubscribe;

  void publish(const BaseEvent& event, bool synchronous) override;
  void publish(const BaseEvent& event) override;
  unsigned int getSubscriptionCount() const override;
  unsigned int getPendingEventCount() const override;
  bool isDispatchOrMainThread() const override;
  void subscribe(const std::string& eventType, const ClientPtr& client) override;
  void subscribe(const TypeList& eventTypes, const ClientPtr& client) override;
  void subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                 const ClientPtr& client) override;
  void unSubscribe(const std::string& eventType, const ClientPtr& client) override;
  void unSubscribe(const TypeList& eventTypes, const ClientPtr& client) override;
  void unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                   const ClientPtr& client) override;

  // --- Dispatcher thread ----------------------------------------------------

  // The table's operations (see SubscriptionTable).
  void addSubscription(const std::string& eventType, const ClientPtr& client) { table_.add(eventType, client); }
  void removeSubscription(const std::string& eventType, const ClientPtr& client) { table_.remove(eventType, client); }
  void deliver(const BaseEvent& event) noexcept { table_.deliver(event); }
  // One cycle of the dispatcher loop: delivers at most one queued event, or
  // waits up to one second for one.
  void dispatchNext();

  // --- Any thread -------------------------------------------------------------

  // Starts the dispatcher thread if it exists and does not run.
  void ensureDispatcherRunning();
  // Prints the pending failure report, if any, on the calling thread.
  void printPendingReport() noexcept { failureReport_.printPending(); }
  // True while a subscriber-failure report waits to be printed.
  bool hasPendingReport() const noexcept { return failureReport_.isPending(); }
  // True on the dispatcher thread.
  bool isDispatcherThread() const noexcept;
  // Wakes a dispatcher that waits for events (used by stop()).
  void wakeDispatcher() { queue_.wake(); }
  // Set once by the instance mechanism, before the manager is handed out.
  void setWeakSelf(const boost::shared_ptr<DefaultEventMgr>& self) { weakSelf_ = self; }
  boost::shared_ptr<EventDispatcher> getDispatcher() const { return dispatcher_; }
  std::size_t getMailerCount() const { return mailers_.size(); }

 private:
  using Share = boost::shared_ptr<DefaultEventMgr>;

  // Throws NotifyDeadlockException on the dispatcher thread, where waiting for
  // the dispatcher would wait for ever.
  void refuseOnDispatcherThread() const;
  // Queues `action` and waits until the dispatcher thread has run it,
  // polling (see SynchronousRequest); rethrows what the action handed over in
  // its SyncData::failure. Refused on the dispatcher thread; throws
  // std::bad_alloc with nothing queued if the request cannot be made.
  // `holder`, if given, is the caller's share of the manager; it is let go
  // once the request is queued.
  void runAction(const boost::shared_ptr<ActionContainerEvent>& action, bool atBack, Share holder);
  // Adds (`add`) or removes the subscription of `client` to `eventType` on
  // the dispatcher thread and waits; a failure there passes out here.
  void changeSubscription(const std::string& eventType, const ClientPtr& client, bool add, Share holder = Share());
  // changeSubscription() for each name of `eventTypes`. Each name waits for
  // the dispatcher and the manager may be shut down while one waits, so each
  // takes a share of the manager through the weak reference and the loop
  // ends when there is none any more, never touching `this` again.
  void changeEach(const TypeList& eventTypes, const ClientPtr& client, bool add);
  // Marks every queued action done without running it; drops other events.
  static void releasePendingActions(const DispatchQueue::Drained& events);

  boost::weak_ptr<DefaultEventMgr> weakSelf_;
  DispatchQueue queue_{IdleSpin::adaptive()};
  FailureReport failureReport_;
  SubscriptionTable table_;  // Dispatcher thread only.
  MailerRegistry mailers_;
  const SynchronousRequest syncRequest_;
  boost::shared_ptr<EventDispatcher> dispatcher_;

  bool shutDown_ = false;                   // Guarded by the instance mutex.
  bool shutDownAfterDelivery_ = false;      // Dispatcher thread only.
  DefaultEventMgr* nextRetired_ = nullptr;  // The retired list; guarded by the instance mutex.

  friend void detail::retire(DefaultEventMgr* manager) noexcept;
  friend void detail::destroyRetiredManagers() noexcept;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H
