// SPDX-License-Identifier: MIT
// DefaultEventMgr: the working event manager.
//
// Data
//   * the subscription table: per event type name, the set of subscribed
//     clients, ordered by class id, then instance id, and the same clients as
//     a flat array for delivery. Written and read only on the dispatcher
//     thread (and by the constructor and destructor while no dispatcher
//     runs). Each entry is shared with the deliveries that use it and copied
//     only when it changes while a delivery holds it, so a delivery never
//     copies n clients and a subscriber may change the subscriptions from
//     inside notify() without disturbing it.
//   * the event queue: events waiting for the dispatcher thread.
//   * the mailer set of combined subscriptions.
//   * the pending report: the latest unprinted subscriber-failure report.
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
//   the failure report's mutex, mailerMutex_ and the shutdown window's mutex (Instance.h;
//   closed under the instance mutex) are leaves: nothing is taken while they
//   are held, and none is held while waiting for the dispatcher (a thread
//   that waits for an equal mailer being built waits on mailerBuilt_ with
//   mailerMutex_ released).
//   No lock of the manager is held while a subscriber or an action runs.
#ifndef VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H
#define VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/local_shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "Corvane/System/ThreadId.h"
#include "DispatchQueue.h"
#include "FailureReport.h"
#include "Instance.h"
#include "SynchronousRequest.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ProxyMailer.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

namespace vexutil {
namespace eventmgr {

class ActionContainerEvent;
class EventDispatcher;

class DefaultEventMgr final : public EventMgr, public ToDoAdapter {
 public:
  using EventPtr = boost::shared_ptr<BaseEvent>;

  using QueuedEvent = DispatchQueue::Entry;

  // Orders subscribers by class id, then instance id: the client ordering of
  // clientLess for clients of one class, made a strict weak order for clients
  // of different classes so that the set stays well-formed.
  struct ClientOrder {
    bool operator()(const ClientPtr& a, const ClientPtr& b) const {
      const std::uint64_t classA = a->getClassId();
      const std::uint64_t classB = b->getClassId();
      if (classA != classB) {
        return classA < classB;
      }
      return a->getInstanceId() < b->getInstanceId();
    }
  };
  using ClientSet = std::set<ClientPtr, ClientOrder>;

  // The subscribers of one type name: the ordered set, and the same proxies
  // in the same order as a flat array, which is what deliveries walk. The
  // array is rebuilt by the first delivery after a change; an entry is only
  // changed in place while no delivery holds it (see the overview).
  struct Subscribers {
    Subscribers() = default;
    explicit Subscribers(ClientSet set) : clients(std::move(set)) {}
    // Rebuilds deliveryOrder; false, with the array empty, if memory runs out.
    bool tryBuildDeliveryOrder() noexcept;

    ClientSet clients;
    std::vector<ClientProxy*> deliveryOrder;  // Owned by `clients`.
    bool deliveryOrderCurrent = false;
  };

  // Orders mailers as ProxyMailer::operator< does for clients of one class;
  // clients of different classes are ordered by class id instead of each
  // being less than the other, which a std::set cannot hold.
  struct MailerOrder {
    bool operator()(const boost::shared_ptr<ProxyMailer>& a, const boost::shared_ptr<ProxyMailer>& b) const;
  };

  // Sets up the queue, tables and dispatcher, subscribes the dispatcher to
  // "ActionContainerEvent" and starts the dispatcher thread. If anything
  // fails, no thread is left running and the exception passes out.
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
  void shutDownAfterDelivery() noexcept;

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

  // --- Dispatcher-thread operations ---------------------------------------

  // Adds `client` to the set of `eventType`; a duplicate subscriber is
  // dropped. Strong guarantee: if memory runs out, nothing has changed.
  void addSubscription(const std::string& eventType, const ClientPtr& client);
  // Removes the same subscriber from the set of `eventType`, if present.
  // Strong guarantee, as addSubscription().
  void removeSubscription(const std::string& eventType, const ClientPtr& client);
  // Calls every subscriber of every type name of the event; failures become
  // the pending report. Never throws: a report that cannot be composed for
  // lack of memory is dropped, and delivery goes on.
  void deliver(const EventPtr& event) noexcept;
  void deliver(const BaseEvent& event) noexcept;
  // One cycle of the dispatcher loop: delivers at most one queued event, or
  // waits up to one second for one.
  void dispatchNext();

  // --- Support ------------------------------------------------------------

  // Starts the dispatcher thread if it exists and does not run.
  void ensureDispatcherRunning();
  // Prints the pending failure report, if any, on the calling thread.
  void printPendingReport() noexcept { failureReport_.printPending(); }
  // True while a subscriber-failure report waits to be printed.
  bool hasPendingReport() const noexcept { return failureReport_.isPending(); }
  // True on the dispatcher thread.
  bool isDispatcherThread() const noexcept;
  // True when the dispatcher exists and its stop was requested.
  bool isStopping() const noexcept;
  // Wakes a dispatcher that waits for events (used by stop()).
  void wakeDispatcher();
  // Marks every queued action done without running it; drops other events.
  static void releasePendingActions(const DispatchQueue::Drained& events);

  // Set once by the instance mechanism, before the manager is handed out.
  void setWeakSelf(const boost::shared_ptr<DefaultEventMgr>& self) { weakSelf_ = self; }
  boost::shared_ptr<EventDispatcher> getDispatcher() const { return dispatcher_; }
  std::size_t getMailerCount() const;

 private:
  // Runs `function` on the dispatcher thread and waits for it, polling every
  // millisecond. Throws NotifyDeadlockException on the dispatcher thread,
  // and std::bad_alloc if the request cannot be made (nothing is queued
  // then). `holder`, if given, is the caller's share of the manager; it is
  // let go once the request is queued.
  void runSynchronously(boost::function0<void> function, bool atBack,
                        boost::shared_ptr<DefaultEventMgr> holder = boost::shared_ptr<DefaultEventMgr>());
  // Queues `action` and waits for it, as runSynchronously(). Rethrows what
  // the action handed over in its SyncData::failure.
  void runAction(const boost::shared_ptr<ActionContainerEvent>& action, bool atBack,
                 boost::shared_ptr<DefaultEventMgr> holder);
  // Adds (`add`) or removes the subscription of `client` to `eventType` on
  // the dispatcher thread and waits; a failure there passes out here.
  void changeSubscription(const std::string& eventType, const ClientPtr& client, bool add,
                          boost::shared_ptr<DefaultEventMgr> holder = boost::shared_ptr<DefaultEventMgr>());
  // The mailer of `client` made from the same two sets of names, or null.
  // Caller holds mailerMutex_.
  boost::shared_ptr<ProxyMailer> findMailerLocked(const ClientProxy& client, const std::set<std::string>& delayed,
                                                  const std::set<std::string>& trigger) const;
  // Calls client.notify(event); a failure becomes the pending report.
  void notifyClient(const ClientProxy& client, const BaseEvent& event, std::size_t position) noexcept;
  // Adjusts the client-subscription count when the set of `eventType`
  // changes size.
  void countSubscriptions(const std::string& eventType, long delta);

  boost::weak_ptr<DefaultEventMgr> weakSelf_;

  // Events waiting for the dispatcher thread.
  DispatchQueue queue_{IdleSpin::adaptive()};

  // A combined subscription whose mailer a thread is building; lives on
  // that thread's stack, linked into building_ while it is built.
  struct MailerKey {
    const ClientProxy* client;
    std::set<std::string> delayed;
    std::set<std::string> trigger;
    Corvane::System::ThreadId builder;
    MailerKey* next;
  };
  // Waits until no thread builds a mailer equal to `key`; false (at once)
  // when the calling thread itself builds one. `lock` holds mailerMutex_.
  bool awaitNoEqualBuildLocked(std::unique_lock<std::mutex>& lock, const MailerKey& key);
  // Takes `key` off building_ and wakes the threads that wait for it.
  void endBuild(MailerKey& key) noexcept;

  std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers_;  // Guarded by mailerMutex_.
  MailerKey* building_ = nullptr;                                  // Guarded by mailerMutex_.
  mutable std::mutex mailerMutex_;
  std::condition_variable mailerBuilt_;  // Notified when a key leaves building_.

  // How a requester waits for its action.
  const SynchronousRequest syncRequest_;

  // Dispatcher thread only (see the overview).
  // Counted without atomic operations: only the dispatcher thread ever
  // copies or drops these pointers (see the overview).
  std::unordered_map<std::string, boost::local_shared_ptr<Subscribers>> table_;
  // Client subscriptions, without the dispatcher's own; read by any thread.
  std::atomic<unsigned int> subscriptionCount_{0};

  boost::shared_ptr<EventDispatcher> dispatcher_;

  FailureReport failureReport_;

  bool shutDown_ = false;                   // Guarded by the instance mutex.
  bool shutDownAfterDelivery_ = false;      // Dispatcher thread only.
  DefaultEventMgr* nextRetired_ = nullptr;  // The retired list; guarded by the instance mutex.

  friend void detail::retire(DefaultEventMgr* manager) noexcept;
  friend void detail::destroyRetiredManagers() noexcept;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H
