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
// Locks, in the order in which they may be nested
//   instance mutex (process-wide; creation and the whole destructor)
//     -> queueMutex_ (the queue; released before anything else is taken)
//     -> EventDispatcher's start/stop mutex (held across the join)
//     -> an action's SyncData mutex.
//   A waiting requester holds its action's SyncData mutex while it takes
//   queueMutex_, the start/stop mutex and ToDoAdapter::toDoMutex_; it never
//   holds it while the manager may be destroyed on its thread.
//   reportMutex_ and mailerMutex_ are leaves: nothing is taken while they are
//   held, and mailerMutex_ is never held while waiting for the dispatcher.
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
#include <vector>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/local_shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ProxyMailer.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

namespace vexutil {
namespace eventmgr {

class EventDispatcher;

// The deadlock report, printed once per request that waits too long.
extern const char* const kDeadlockReport;

// A request that is not done after this many polls prints the deadlock report.
constexpr unsigned long kDeadlockReportPoll = 60001;

class DefaultEventMgr final : public EventMgr, public ToDoAdapter {
 public:
  using EventPtr = boost::shared_ptr<BaseEvent>;

  // A queued event. The copy made by an asynchronous publish belongs to the
  // queue alone and is held without a shared count, which would cost an
  // allocation and two atomic operations per event; an action is shared with
  // its waiting requester.
  struct QueuedEvent {
    std::unique_ptr<BaseEvent> owned;
    EventPtr shared;
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
    explicit Subscribers(const ClientSet& set) : clients(set) {}
    void buildDeliveryOrder();

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
  // "ActionContainerEvent" and starts the dispatcher thread.
  DefaultEventMgr();
  // Switches instance() to the no-op manager, takes the queue, stops and
  // joins the dispatcher, releases waiting requesters without running their
  // actions, clears the subscriptions and the mailers. Never throws.
  ~DefaultEventMgr() override;

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

  // Adds `client` to the set of `eventType`; a duplicate subscriber is dropped.
  void addSubscription(const std::string& eventType, const ClientPtr& client);
  // Removes the same subscriber from the set of `eventType`, if present.
  void removeSubscription(const std::string& eventType, const ClientPtr& client);
  // Calls every subscriber of every type name of the event; failures become
  // the pending report.
  void deliver(const EventPtr& event);
  void deliver(const BaseEvent& event);
  // One cycle of the dispatcher loop: delivers at most one queued event, or
  // waits up to one second for one.
  void dispatchNext();

  // --- Support ------------------------------------------------------------

  // Starts the dispatcher thread if it exists and does not run.
  void ensureDispatcherRunning();
  // Prints the pending report, if any, on the calling thread.
  void printPendingReport();
  // True while a subscriber-failure report waits to be printed.
  bool hasPendingReport() const noexcept { return reportPending_.load(std::memory_order_acquire); }
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

 private:
  // Queues `event` at the back (true) or the front (false) and wakes the
  // dispatcher.
  void enqueue(QueuedEvent event, bool atBack);
  // Takes queueMutex_, trying briefly before it sleeps on it.
  std::unique_lock<std::mutex> lockQueue() const;
  // Runs `function` on the dispatcher thread and waits for it, polling every
  // millisecond. Throws NotifyDeadlockException on the dispatcher thread.
  // `holder`, if given, is the caller's share of the manager; it is let go
  // once the request is queued.
  void runSynchronously(boost::function0<void> function, bool atBack,
                        boost::shared_ptr<DefaultEventMgr> holder = boost::shared_ptr<DefaultEventMgr>());
  // Stores a subscriber-failure report, replacing an unprinted one.
  void storePendingReport(std::string report);
  // Adjusts the client-subscription count when the set of `eventType`
  // changes size.
  void countSubscriptions(const std::string& eventType, long delta);

  boost::weak_ptr<DefaultEventMgr> weakSelf_;

  EventQueue queue_;                        // Guarded by queueMutex_.
  std::condition_variable queueCondition_;  // Notified after every enqueue.
  mutable std::mutex queueMutex_;
  // Mirrors queue_.size() so that the dispatcher can spin on it before it
  // blocks; written under queueMutex_.
  std::atomic<std::size_t> queuedCount_{0};

  std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers_;  // Guarded by mailerMutex_.
  mutable boost::mutex mailerMutex_;

  // Dispatcher thread only (see the overview).
  // Counted without atomic operations: only the dispatcher thread ever
  // copies or drops these pointers (see the overview).
  std::unordered_map<std::string, boost::local_shared_ptr<Subscribers>> table_;
  // Client subscriptions, without the dispatcher's own; read by any thread.
  std::atomic<unsigned int> subscriptionCount_{0};

  boost::shared_ptr<EventDispatcher> dispatcher_;

  std::atomic<bool> reportPending_{false};  // Written under reportMutex_.
  std::string report_;                      // Guarded by reportMutex_.
  boost::mutex reportMutex_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DEFAULTEVENTMGR_H
