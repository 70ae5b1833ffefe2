// SPDX-License-Identifier: MIT
#include "DefaultEventMgr.h"

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <boost/make_shared.hpp>

#include "ActionContainerEvent.h"
#include "DiagnosticsHooks.h"
#include "EventDispatcher.h"
#include "PublishCheck.h"
#include "libhx.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"

namespace vexutil {
namespace eventmgr {

namespace {

// The action of a synchronous publish. Small enough for boost::function to
// keep in place, where a bound member function with the event is not and
// would cost an allocation per request. deliver() never throws, so the
// requester is always released.
struct DeliverEvent {
  DefaultEventMgr* manager;
  DefaultEventMgr::EventPtr event;
  void operator()() const {
    // diagnostics hook: counts a synchronously published event and its outcome
    const diagnostics::DeliveryOutcome outcome(*event, 0, diagnostics::Delivered::kSynchronousEvent);
    manager->deliver(*event);
  }
};

// The action of a subscribe or unSubscribe request. A failure (out of memory)
// is handed to the waiting requester through `outcome` instead of leaving the
// action: an action that throws is never marked done, and its requester would
// wait until the manager shuts down. `outcome` belongs to the action event
// that holds this function, so it outlives every call.
struct ChangeSubscription {
  DefaultEventMgr* manager;
  std::string eventType;
  DefaultEventMgr::ClientPtr client;
  bool add;
  ActionContainerEvent::SyncData* outcome;
  void operator()() const {
    try {
      if (add) {
        manager->addSubscription(eventType, client);
      } else {
        manager->removeSubscription(eventType, client);
      }
    } catch (...) {
      outcome->failure = std::current_exception();
    }
  }
};

}  // namespace

DefaultEventMgr::DefaultEventMgr()
    : table_(failureReport_, ActionContainerEvent::typeName()), dispatcher_(new EventDispatcher) {
  // Typed on BaseEvent: the handler tests the dynamic class itself, since a
  // host event may carry the name "ActionContainerEvent" too.
  const ClientPtr dispatcherAdapter(
      new ClientAdapter<EventDispatcher, BaseEvent>(dispatcher_.get(), &EventDispatcher::onActionEvent));
  table_.add(ActionContainerEvent::typeName(), dispatcherAdapter);
  dispatcher_->start(this);
}

DefaultEventMgr::~DefaultEventMgr() {
  shutDown();
  // A dispatcher stopped from inside its own delivery could not be joined
  // then; it has finished, or finishes, that delivery and leaves its loop.
  if (dispatcher_) {
    dispatcher_->join();
  }
}

void DefaultEventMgr::shutDown() noexcept {
  // Host code that runs here (destructors of events and clients) must not
  // wait for this very shutdown.
  const detail::WaitedOnScope waitedOn;
  try {
    boost::mutex::scoped_lock instanceLock(detail::instanceMutex());
    if (shutDown_) {
      return;
    }
    shutDown_ = true;
    // Whatever happens below, the threads that wait for the end of the
    // shutdown are let go at the end of it.
    struct WindowCloser {
      ~WindowCloser() { detail::closeShutdownWindow(); }
    } const windowCloser;
    detail::switchInstanceToDummy();
    // The queue's storage changes hands: a shutdown has nothing to allocate,
    // and so cannot run out of memory.
    DispatchQueue::Drained pending;
    queue_.takeAll(pending);
    if (dispatcher_) {
      dispatcher_->stop(this);
    }
    releasePendingActions(pending);
    table_.clear();
    // Emptied mailers withdraw nothing when they are destroyed: the table is
    // already clear, and nobody may wait for the stopped dispatcher.
    mailers_.clearAll();
    // The dispatcher object stays until the manager is freed: a late call on
    // a retired manager still asks it whether it runs on the dispatcher
    // thread.
    queue_.destroyHandedBack();  // The dispatcher has ended, or is this thread.
    pending.clear();
  } catch (...) {  // NOLINT(bugprone-empty-catch): the shutdown lets nothing out.
  }
}

void DefaultEventMgr::releasePendingActions(const DispatchQueue::Drained& events) {
  events.forEach([](const QueuedEvent& event) {
    // The type test alone would trust a foreign event that claims the name.
    const auto* action = dynamic_cast<const ActionContainerEvent*>(event.get());
    if (action != nullptr) {
      action->markDone();
    }
  });
}

// --- Publishing ----------------------------------------------------------------

void DefaultEventMgr::publish(const BaseEvent& event, bool synchronous) {
  // Hold the manager for the call, except on the dispatcher thread: the
  // dispatcher must never own the manager, or a release elsewhere could make
  // it destroy the manager under its own feet.
  Share self;
  if (isDispatcherThread()) {
    if (weakSelf_.expired()) {
      return;
    }
  } else {
    self = weakSelf_.lock();
    if (!self) {
      return;
    }
  }
  ensureDispatcherRunning();
  printPendingReport();
  std::unique_ptr<BaseEvent> copy(event.clone());
  if (!copy) {
    return;  // A clone() that yields nothing has nothing to publish.
  }
#ifndef NDEBUG
  assertFaithfulCopy(event, *copy);
#endif
  // diagnostics hook: publish (count, tracepoint)
  diagnostics::notePublished(*copy, synchronous);
  if (!synchronous) {
    queue_.push(QueuedEvent{std::move(copy), EventPtr()}, true);
    return;
  }
  // One allocation for the event and its count; the function moves in.
  runAction(boost::make_shared<ActionContainerEvent>(DeliverEvent{this, EventPtr(copy.release())}), true,
            std::move(self));
}

void DefaultEventMgr::publish(const BaseEvent& event) { publish(event, true); }

// --- Queries -------------------------------------------------------------------

unsigned int DefaultEventMgr::getSubscriptionCount() const { return table_.subscriptionCount(); }

unsigned int DefaultEventMgr::getPendingEventCount() const { return static_cast<unsigned int>(queue_.size()); }

bool DefaultEventMgr::isDispatchOrMainThread() const {
  if (!dispatcher_ || dispatcher_->isStopRequested()) {
    return false;  // No dispatcher, or shut down.
  }
  return dispatcher_->isDispatcherThread() || hxIsSignalThread() != 0;
}

bool DefaultEventMgr::isDispatcherThread() const noexcept { return dispatcher_ && dispatcher_->isDispatcherThread(); }

void DefaultEventMgr::refuseOnDispatcherThread() const {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
}

// --- Subscriptions ---------------------------------------------------------------

void DefaultEventMgr::subscribe(const std::string& eventType, const ClientPtr& client) {
  refuseOnDispatcherThread();
  if (!client || eventType.empty()) {
    return;
  }
  changeSubscription(eventType, client, true);
}

void DefaultEventMgr::subscribe(const TypeList& eventTypes, const ClientPtr& client) {
  refuseOnDispatcherThread();
  changeEach(eventTypes, client, true);
}

void DefaultEventMgr::subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                const ClientPtr& client) {
  refuseOnDispatcherThread();
  mailers_.subscribe(delayedInputTypes, triggerInputTypes, client, weakSelf_);
}

void DefaultEventMgr::unSubscribe(const std::string& eventType, const ClientPtr& client) {
  if (!client || eventType.empty()) {
    return;
  }
  if (isDispatcherThread()) {
    table_.remove(eventType, client);
    return;
  }
  changeSubscription(eventType, client, false);
  // A shutdown that took the request away may still be in a delivery.
  detail::awaitShutdownCompleted();
}

void DefaultEventMgr::unSubscribe(const TypeList& eventTypes, const ClientPtr& client) {
  if (isDispatcherThread()) {
    for (const std::string& eventType : eventTypes) {
      unSubscribe(eventType, client);  // At once; nothing waits.
    }
    return;
  }
  changeEach(eventTypes, client, false);
  detail::awaitShutdownCompleted();
}

void DefaultEventMgr::unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                  const ClientPtr& client) {
  if (!client) {
    return;
  }
  const std::set<std::string> delayed(delayedInputTypes.begin(), delayedInputTypes.end());
  const std::set<std::string> trigger(triggerInputTypes.begin(), triggerInputTypes.end());
  // Matching a mailer here, rather than building a subscribed mailer as the
  // search key, keeps events that arrive meanwhile from reaching the client
  // twice. The request still waits for the dispatcher (the erased mailers
  // withdraw their subscriptions), so it is refused there as subscribe is.
  if (!(delayed.empty() && trigger.empty())) {
    refuseOnDispatcherThread();
  }
  mailers_.unSubscribe(delayed, trigger, client);
  detail::awaitShutdownCompleted();
}

void DefaultEventMgr::changeEach(const TypeList& eventTypes, const ClientPtr& client, bool add) {
  const boost::weak_ptr<DefaultEventMgr> weakManager = weakSelf_;
  for (const std::string& eventType : eventTypes) {
    Share manager = weakManager.lock();
    if (!manager) {
      return;  // Shut down: the remaining names are left alone.
    }
    if (!client || eventType.empty()) {
      continue;
    }
    DefaultEventMgr* const target = manager.get();
    target->changeSubscription(eventType, client, add, std::move(manager));
  }
}

void DefaultEventMgr::changeSubscription(const std::string& eventType, const ClientPtr& client, bool add,
                                         Share holder) {
  // The event is made first, so that the function can report to it.
  const boost::shared_ptr<ActionContainerEvent> action =
      boost::make_shared<ActionContainerEvent>(boost::function0<void>());
  action->action = ChangeSubscription{this, eventType, client, add, action->syncData.get()};
  // Unsubscribe requests overtake the events already queued.
  runAction(action, add, std::move(holder));
}

// --- The dispatcher thread, and waiting for it ---------------------------------------

void DefaultEventMgr::dispatchNext() {
  QueuedEvent event;
  if (!queue_.take(event, dispatcher_ ? &dispatcher_->stopFlag() : nullptr)) {
    return;
  }
  if (const BaseEvent* const delivered = event.get()) {
    // diagnostics hook: queue wait and the outcome of a published event
    const diagnostics::DeliveryOutcome outcome(
        *delivered, event.queuedAtNs,
        event.owned ? diagnostics::Delivered::kPublishedEvent : diagnostics::Delivered::kQueuedEntry);
    table_.deliver(*delivered);
  }
  queue_.handBack(std::move(event));
  if (shutDownAfterDelivery_) {
    // A subscriber let the last share go during that delivery.
    shutDown();
    detail::retire(this);
  }
}

void DefaultEventMgr::ensureDispatcherRunning() {
  if (dispatcher_ && !dispatcher_->isRunning()) {
    dispatcher_->start(this);
  }
}

void DefaultEventMgr::runAction(const boost::shared_ptr<ActionContainerEvent>& action, bool atBack, Share holder) {
  refuseOnDispatcherThread();
  // Hold the manager while the request is queued; between polls only the
  // weak reference remains, so that the manager can be destroyed meanwhile.
  if (!holder) {
    holder = weakSelf_.lock();
    if (!holder) {
      return;  // No owner: shut down, nothing runs any more.
    }
  }
  ActionContainerEvent::Lock lock(action->getMutex());
  queue_.push(QueuedEvent{nullptr, action}, atBack);
  // diagnostics hook: synchronous wait start and end tracepoints
  const diagnostics::SyncWaitProbe waitProbe(action.get());
  PollingRequester<DefaultEventMgr> requester(weakSelf_, lock);
  requester.dropUnlocked(holder);
  // Set before the action was marked done, under the mutex held here.
  if (syncRequest_.await(*action, lock, requester) && action->syncData->failure) {
    std::rethrow_exception(action->syncData->failure);
  }
}

}  // namespace eventmgr
}  // namespace vexutil
