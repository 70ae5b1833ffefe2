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
//     -> queueMutex_ (stop() passes through it to wake the dispatcher).
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
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/chrono/system_clocks.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/local_shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "Corvane/System/ThreadId.h"
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
  // The unit of cache coherence on the machines this runs on.
  static constexpr std::size_t kCacheLine = 64;

 public:
  using EventPtr = boost::shared_ptr<BaseEvent>;

  // A queued event. The copy made by an asynchronous publish belongs to the
  // queue alone and is held without a shared count, which would cost an
  // allocation and two atomic operations per event; an action is shared with
  // its waiting requester.
  struct QueuedEvent {
    std::unique_ptr<BaseEvent> owned;
    EventPtr shared;
    // diagnostics hook: when it was queued (0 unless its wait is judged or traced)
    std::int64_t queuedAtNs = 0;
    const BaseEvent* get() const noexcept { return owned ? owned.get() : shared.get(); }
  };
  using EventQueue = std::deque<QueuedEvent>;

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
  static void releasePendingActions(EventQueue& events);

  // Set once by the instance mechanism, before the manager is handed out.
  void setWeakSelf(const boost::shared_ptr<DefaultEventMgr>& self) { weakSelf_ = self; }
  boost::shared_ptr<EventDispatcher> getDispatcher() const { return dispatcher_; }
  std::size_t getMailerCount() const;

  // Benchmarks and tests only, never set by the product: with false, every
  // dispatcher of the process blocks as soon as it finds the queue empty,
  // without the hold after a delivery and without the idle spin, so that
  // their cost can be measured against a dispatcher that has neither. Read
  // by the dispatcher at every cycle; true unless changed.
  static void setSpinningForTesting(bool enabled) noexcept;

 private:
  using Clock = boost::chrono::steady_clock;

  // Queues `event` at the back (true) or the front (false) and wakes the
  // dispatcher. `urgent` exempts it from the batching hold (see
  // spinForNewEvents).
  void enqueue(QueuedEvent event, bool atBack, bool urgent);
  // Takes queueMutex_, trying briefly before it sleeps on it.
  std::unique_lock<std::mutex> lockQueue() const;
  // Dispatcher thread, with the queue seen empty: spins, giving way, until
  // a publisher hints at a new event, the stop is requested or kIdleSpin has
  // passed since `spinStart`. Right after a delivery it first holds back for
  // up to kBatchHold, reacting then only to urgent events, and the spin ends
  // that much later. True when a new event was hinted at.
  bool spinForNewEvents(Clock::time_point spinStart);
  // Dispatcher thread: counts an idle period that a spin would (true) or
  // would not (false) have bridged in bridgedInARow_.
  void judgeIdlePeriod(bool bridged) noexcept;
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

  // The queue. Publishers and the dispatcher must meet on queueMutex_ once
  // per event; the rest is laid out so that, in the steady state, every other
  // cache line is written by one side only:
  //   * queueMutex_ and the two counts and the time it guards share one line;
  //   * the dispatcher's own state and the deque's front end (map, map size,
  //     start: libstdc++'s order) share the next-but-one line, which only the
  //     dispatcher writes;
  //   * the deque's back end and enqueueHint_ share the line after that,
  //     which only publishers write.
  // queueSize_ stands in for queue_.size() and queue_.empty(), which would
  // read both ends of the deque.
  alignas(kCacheLine) mutable std::mutex queueMutex_;
  std::size_t queueSize_ = 0;          // Always queue_.size(); guarded by queueMutex_.
  std::uint64_t enqueueSequence_ = 0;  // Events ever queued; guarded by queueMutex_.
  // Clock::time_point::max() while the dispatcher waits on queueCondition_;
  // the first publisher that finds it so replaces it by the time at which it
  // queued its event, once per sleep. Guarded by queueMutex_.
  Clock::time_point wakeRequested_;
  // Notified after every enqueue; only read while the dispatcher does not
  // wait on it.
  alignas(kCacheLine) std::condition_variable queueCondition_;
  // Dispatcher thread only: the enqueueSequence_ value up to which it has
  // seen the queue, whether events were left behind the last one taken,
  // whether the last cycle delivered one (rather than waited), whether it
  // was woken by a publisher, and how many idle periods in a row a spin
  // would have bridged (see kBridgedInARowToSpin).
  alignas(kCacheLine) std::uint64_t seenSequence_ = 0;
  bool backlogged_ = false;
  bool delivering_ = false;
  bool woken_ = false;
  unsigned bridgedInARow_ = 0;
  EventQueue queue_;  // Guarded by queueMutex_.
  // A publisher's enqueueSequence_ value, stored after it let queueMutex_
  // go: a value beyond seenSequence_ tells the spinning dispatcher that the
  // mutex is worth taking, and taking it then does not meet the publisher
  // inside it. A hint only: stores of concurrent publishers may land out of
  // order and hide a newer value for a moment, so the dispatcher decides by
  // queueSize_, and its spin is bounded by kIdleSpin.
  std::atomic<std::uint64_t> enqueueHint_{0};
  // Like enqueueHint_, for the events that are taken without the batching
  // hold: requests that a thread waits for, and events queued by the
  // dispatcher thread itself.
  std::atomic<std::uint64_t> urgentHint_{0};

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
  // Swapped with the queue at shutdown, which so allocates nothing.
  EventQueue shutDownQueue_;

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
