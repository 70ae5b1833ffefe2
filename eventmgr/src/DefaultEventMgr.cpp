// SPDX-License-Identifier: MIT
#include "DefaultEventMgr.h"

#include <cxxabi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>
#include <boost/smart_ptr/make_local_shared.hpp>

#include "ActionContainerEvent.h"
#include "Corvane/System/IUserException.h"
#include "Corvane/System/ThreadId.h"
#include "DiagnosticsHooks.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "libhx.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"

namespace vexutil {
namespace eventmgr {

namespace {

// How many subscribers ahead a delivery asks for the next proxy's memory.
constexpr std::size_t kPrefetchAhead = 16;

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
    manager->deliver(event);
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

// The manager's side of the polls of a waiting requester (see
// SynchronousRequest). Between polls only the weak reference remains, so that
// the manager can be shut down meanwhile. If this thread ends up letting the
// manager go, the shutdown marks the queued actions done, this one included:
// it must not find the action's mutex held by its own thread, so shares are
// let go with the mutex released.
class PollingRequester {
 public:
  PollingRequester(boost::weak_ptr<DefaultEventMgr> manager, ActionContainerEvent::Lock& lock)
      : weakManager_(std::move(manager)), lock_(lock) {}
  bool beginPoll() {
    manager_ = weakManager_.lock();
    if (!manager_) {
      return false;  // Shut down: the request is released without having run.
    }
    try {
      // A dispatcher that cannot be started now is tried again at the next
      // poll: the request is queued and must not be given up.
      manager_->ensureDispatcherRunning();
    } catch (...) {  // NOLINT(bugprone-empty-catch): see above.
    }
    manager_->printPendingReport();
    return true;
  }
  // A handed-off function that throws leaves its dispatcher blocked in the
  // hand-off until shutdown, so the request cannot run before then either:
  // the exception passes out.
  void servePoll() { manager_->invokeOnceOnMainThread(); }
  void endPoll() { dropUnlocked(manager_); }
  void dropUnlocked(boost::shared_ptr<DefaultEventMgr>& share) {
    lock_.unlock();
    share.reset();
    lock_.lock();
  }

 private:
  boost::weak_ptr<DefaultEventMgr> weakManager_;
  ActionContainerEvent::Lock& lock_;
  boost::shared_ptr<DefaultEventMgr> manager_;
};

}  // namespace

bool DefaultEventMgr::MailerOrder::operator()(const boost::shared_ptr<ProxyMailer>& a,
                                              const boost::shared_ptr<ProxyMailer>& b) const {
  const ClientProxy& clientA = *a->getClient();
  const ClientProxy& clientB = *b->getClient();
  if (clientA.getClassId() != clientB.getClassId()) {
    return clientA.getClassId() < clientB.getClassId();
  }
  if (clientA.getInstanceId() != clientB.getInstanceId()) {
    return clientA.getInstanceId() < clientB.getInstanceId();
  }
  // Same client: ProxyMailer::operator< decides by the two input sets.
  return *a < *b;
}

DefaultEventMgr::DefaultEventMgr() : dispatcher_(new EventDispatcher) {
  // Typed on BaseEvent: the handler tests the dynamic class itself, since a
  // host event may carry the name "ActionContainerEvent" too.
  const ClientPtr dispatcherAdapter(
      new ClientAdapter<EventDispatcher, BaseEvent>(dispatcher_.get(), &EventDispatcher::onActionEvent));
  addSubscription(ActionContainerEvent::typeName(), dispatcherAdapter);
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
    // Swapped out rather than cleared, so that the buckets go too.
    decltype(table_)().swap(table_);
    subscriptionCount_.store(0, std::memory_order_relaxed);
    std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers;
    {
      const std::lock_guard<std::mutex> mailerLock(mailerMutex_);
      mailers.swap(mailers_);
    }
    // Emptied mailers withdraw nothing when they are destroyed: the table is
    // already clear, and nobody may wait for the stopped dispatcher.
    for (const boost::shared_ptr<ProxyMailer>& mailer : mailers) {
      mailer->clearAll();
    }
    mailers.clear();
    // The dispatcher object stays until the manager is freed: a late call on
    // a retired manager still asks it whether it runs on the dispatcher
    // thread.
    pending.clear();
  } catch (...) {  // NOLINT(bugprone-empty-catch): the shutdown lets nothing out.
  }
}

// --- Publishing ----------------------------------------------------------------

#ifndef NDEBUG
namespace {

std::string className(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

std::string joinedTypes(const BaseEvent& event) {
  std::string joined;
  for (const std::string& name : event.getTypes()) {
    joined += name + "::";
  }
  return joined;
}

// A copy of another class or with other names would be delivered as
// something the publisher did not publish: subscribers of the derived names
// would miss it, or cast it to a class it is not. Only the published class is
// known here, so the message names what differs and the usual causes.
void assertFaithfulCopy(const BaseEvent& event, const BaseEvent& copy) {
  if (typeid(copy) != typeid(event)) {
    std::fprintf(stderr,
                 "vexutil: publish: clone() of an event of class %s returned an object of class %s: that class, or "
                 "one between it and BaseEvent, does not override clone() (define it with "
                 "vexutil::eventmgr::Event<Class, Base>)\n",
                 className(typeid(event)).c_str(), className(typeid(copy)).c_str());
    std::abort();
  }
  if (copy.getTypes() != event.getTypes()) {
    std::fprintf(stderr,
                 "vexutil: publish: the copy of an event of class %s has the type names %s instead of %s: a copy "
                 "constructor of its class chain does not name the class (define the classes with "
                 "vexutil::eventmgr::Event<Class, Base>, or pass the names in every constructor)\n",
                 className(typeid(event)).c_str(), joinedTypes(copy).c_str(), joinedTypes(event).c_str());
    std::abort();
  }
}

}  // namespace
#endif

void DefaultEventMgr::publish(const BaseEvent& event, bool synchronous) {
  // Hold the manager for the call, except on the dispatcher thread: the
  // dispatcher must never own the manager, or a release elsewhere could make
  // it destroy the manager under its own feet.
  boost::shared_ptr<DefaultEventMgr> self;
  const bool onDispatcher = isDispatcherThread();
  if (onDispatcher) {
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
  runSynchronously(DeliverEvent{this, EventPtr(copy.release())}, true, std::move(self));
}

void DefaultEventMgr::publish(const BaseEvent& event) { publish(event, true); }

void DefaultEventMgr::wakeDispatcher() { queue_.wake(); }

// --- Queries -------------------------------------------------------------------

unsigned int DefaultEventMgr::getSubscriptionCount() const {
  return subscriptionCount_.load(std::memory_order_acquire);
}

unsigned int DefaultEventMgr::getPendingEventCount() const { return static_cast<unsigned int>(queue_.size()); }

bool DefaultEventMgr::isDispatchOrMainThread() const {
  if (!dispatcher_ || isStopping()) {
    return false;  // No dispatcher, or shut down.
  }
  if (dispatcher_->isDispatcherThread()) {
    return true;
  }
  return hxIsSignalThread() != 0;
}

bool DefaultEventMgr::isDispatcherThread() const noexcept { return dispatcher_ && dispatcher_->isDispatcherThread(); }

bool DefaultEventMgr::isStopping() const noexcept { return dispatcher_ && dispatcher_->isStopRequested(); }

std::size_t DefaultEventMgr::getMailerCount() const {
  const std::lock_guard<std::mutex> lock(mailerMutex_);
  return mailers_.size();
}

// --- Subscriptions ---------------------------------------------------------------

void DefaultEventMgr::subscribe(const std::string& eventType, const ClientPtr& client) {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
  if (!client || eventType.empty()) {
    return;
  }
  changeSubscription(eventType, client, true);
}

void DefaultEventMgr::subscribe(const TypeList& eventTypes, const ClientPtr& client) {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
  // Each name waits for the dispatcher, and the manager may be destroyed
  // while one waits: every name takes a share of the manager through the
  // weak reference (handed to the request, which lets it go once queued) and
  // the loop ends when there is none any more, never touching `this` again.
  const boost::weak_ptr<DefaultEventMgr> weakManager = weakSelf_;
  for (const std::string& eventType : eventTypes) {
    boost::shared_ptr<DefaultEventMgr> manager = weakManager.lock();
    if (!manager) {
      return;  // Shut down: the remaining names are not subscribed.
    }
    if (!client || eventType.empty()) {
      continue;
    }
    DefaultEventMgr* const target = manager.get();
    target->changeSubscription(eventType, client, true, std::move(manager));
  }
}

void DefaultEventMgr::subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                const ClientPtr& client) {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
  if (!client) {
    return;
  }
  const boost::weak_ptr<DefaultEventMgr> weakManager = weakSelf_;
  // An equal combined subscription, made or being made, is looked for first:
  // a second mailer, subscribed and then dropped as a duplicate, would hand
  // the client every flushed event twice while it lived.
  MailerKey key{client.get(), std::set<std::string>(delayedInputTypes.begin(), delayedInputTypes.end()),
                std::set<std::string>(triggerInputTypes.begin(), triggerInputTypes.end()),
                Corvane::System::ThreadId::self(), nullptr};
  {
    std::unique_lock<std::mutex> lock(mailerMutex_);
    if (!awaitNoEqualBuildLocked(lock, key) || weakManager.expired() ||
        findMailerLocked(*client, key.delayed, key.trigger)) {
      return;
    }
    key.next = building_;
    building_ = &key;
  }
  // Announced as being built, other threads wait for it; taken off that list
  // however the building ends.
  struct BuildEnd {
    DefaultEventMgr& manager;
    MailerKey& key;
    ~BuildEnd() { manager.endBuild(key); }
  } const buildEnd{*this, key};
  // Built (and destroyed, if the manager shuts down meanwhile) outside
  // mailerMutex_: both wait for the dispatcher thread.
  boost::shared_ptr<ProxyMailer> mailer(new ProxyMailer(delayedInputTypes, triggerInputTypes, client));
  const boost::shared_ptr<DefaultEventMgr> manager = weakManager.lock();
  if (!manager) {
    // The mailer withdraws its subscriptions as it goes; that waits for the
    // end of the shutdown, whose last delivery may still reach it.
    return;
  }
  const std::lock_guard<std::mutex> lock(mailerMutex_);
  // If the insertion fails, the new mailer withdraws its subscriptions as it
  // goes.
  mailers_.insert(std::move(mailer));
}

bool DefaultEventMgr::awaitNoEqualBuildLocked(std::unique_lock<std::mutex>& lock, const MailerKey& key) {
  for (;;) {
    const MailerKey* equal = building_;
    while (equal != nullptr && !(!clientLess(*equal->client, *key.client) && !clientLess(*key.client, *equal->client) &&
                                 equal->delayed == key.delayed && equal->trigger == key.trigger)) {
      equal = equal->next;
    }
    if (equal == nullptr) {
      return true;
    }
    if (equal->builder == key.builder) {
      return false;  // Made again from inside its own building (a hand-off): it is under way.
    }
    mailerBuilt_.wait(lock);
  }
}

void DefaultEventMgr::endBuild(MailerKey& key) noexcept {
  {
    const std::lock_guard<std::mutex> lock(mailerMutex_);
    MailerKey** link = &building_;
    while (*link != &key) {
      link = &(*link)->next;
    }
    *link = key.next;
  }
  mailerBuilt_.notify_all();
}

boost::shared_ptr<ProxyMailer> DefaultEventMgr::findMailerLocked(const ClientProxy& client,
                                                                 const std::set<std::string>& delayed,
                                                                 const std::set<std::string>& trigger) const {
  for (const boost::shared_ptr<ProxyMailer>& mailer : mailers_) {
    const ClientProxy& mailerClient = *mailer->getClient();
    const bool sameClient = !clientLess(mailerClient, client) && !clientLess(client, mailerClient);
    if (sameClient && mailer->getDelayedInputTypes() == delayed && mailer->getTriggerInputTypes() == trigger) {
      return mailer;
    }
  }
  return {};
}

void DefaultEventMgr::unSubscribe(const std::string& eventType, const ClientPtr& client) {
  if (!client || eventType.empty()) {
    return;
  }
  if (isDispatcherThread()) {
    removeSubscription(eventType, client);
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
  // As the list subscribe: a share of the manager per name, none after a
  // shutdown.
  const boost::weak_ptr<DefaultEventMgr> weakManager = weakSelf_;
  for (const std::string& eventType : eventTypes) {
    boost::shared_ptr<DefaultEventMgr> manager = weakManager.lock();
    if (!manager) {
      break;
    }
    if (!client || eventType.empty()) {
      continue;
    }
    DefaultEventMgr* const target = manager.get();
    target->changeSubscription(eventType, client, false, std::move(manager));
  }
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
  if (isDispatcherThread() && !(delayed.empty() && trigger.empty())) {
    throw NotifyDeadlockException();
  }
  const MailerKey key{client.get(), delayed, trigger, Corvane::System::ThreadId::self(), nullptr};
  {
    boost::shared_ptr<ProxyMailer> erased;
    std::unique_lock<std::mutex> lock(mailerMutex_);
    // An equal subscription being made is waited for, and then removed.
    awaitNoEqualBuildLocked(lock, key);
    // The set holds at most one mailer per client and pair of sets.
    erased = findMailerLocked(*client, delayed, trigger);
    if (erased) {
      mailers_.erase(erased);
    }
    lock.unlock();
    // The erased mailer withdraws its subscriptions as `erased` goes,
    // outside mailerMutex_.
  }
  detail::awaitShutdownCompleted();
}

void DefaultEventMgr::countSubscriptions(const std::string& eventType, long delta) {
  if (eventType != ActionContainerEvent::typeName()) {
    subscriptionCount_.fetch_add(static_cast<unsigned int>(delta), std::memory_order_acq_rel);
  }
}

bool DefaultEventMgr::Subscribers::tryBuildDeliveryOrder() noexcept {
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

void DefaultEventMgr::addSubscription(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  // Every step that may run out of memory comes before the table changes: an
  // entry is put in only once it is complete.
  const auto found = table_.find(eventType);
  if (found == table_.end()) {
    boost::local_shared_ptr<Subscribers> created = boost::make_local_shared<Subscribers>();
    created->clients.insert(client);
    table_.emplace(eventType, std::move(created));
    countSubscriptions(eventType, 1);
    // diagnostics hook: subscribe tracepoint
    diagnostics::noteSubscription(eventType, *client, true);
    return;
  }
  boost::local_shared_ptr<Subscribers>& subscribers = found->second;
  if (subscribers->clients.find(client) != subscribers->clients.end()) {
    return;  // The same subscriber keeps its entry; the new proxy is dropped without a report.
  }
  if (subscribers.local_use_count() > 1) {
    // A delivery holds this entry: change a copy and leave its snapshot alone.
    boost::local_shared_ptr<Subscribers> copy = boost::make_local_shared<Subscribers>(subscribers->clients);
    copy->clients.insert(client);
    subscribers = std::move(copy);
  } else {
    subscribers->clients.insert(client);
    subscribers->deliveryOrderCurrent = false;
  }
  countSubscriptions(eventType, 1);
  // diagnostics hook: subscribe tracepoint
  diagnostics::noteSubscription(eventType, *client, true);
}

void DefaultEventMgr::removeSubscription(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  const auto found = table_.find(eventType);
  if (found == table_.end()) {
    return;
  }
  boost::local_shared_ptr<Subscribers>& subscribers = found->second;
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
  countSubscriptions(eventType, -1);
  // diagnostics hook: unsubscribe tracepoint
  diagnostics::noteSubscription(eventType, *client, false);
  if (subscribers->clients.empty()) {
    table_.erase(found);
  }
}

// --- Delivery --------------------------------------------------------------------

void DefaultEventMgr::deliver(const EventPtr& event) noexcept {
  if (event) {
    deliver(*event);
  }
}

void DefaultEventMgr::notifyClient(const ClientProxy& client, const BaseEvent& event, std::size_t position) noexcept {
  try {
    client.notify(event);
  } catch (const Corvane::System::IUserException& failure) {
    failureReport_.store(event, position, client, &failure);
  } catch (...) {
    failureReport_.store(event, position, client, nullptr);
  }
}

void DefaultEventMgr::deliver(const BaseEvent& event) noexcept {
  // The walk over the subscribers, instantiated once plain and once timed;
  // notifyOne(client, position) makes one notify() call.
  const auto walk = [this, &event](auto&& notifyOne) {
    for (const std::string& eventType : event.getTypes()) {
      const auto found = table_.find(eventType);
      if (found == table_.end()) {
        continue;
      }
      // diagnostics hook: the event has subscribers
      diagnostics::noteSubscribersFound();
      // The snapshot: subscribers may change the table from inside notify().
      // Such a change goes to a copy of the entry while this one is held, so
      // the clients walked here stay as they are and stay alive.
      const boost::local_shared_ptr<Subscribers> subscribers = found->second;
      if (!subscribers->deliveryOrderCurrent && !subscribers->tryBuildDeliveryOrder()) {
        // No memory for the flat array: walk the set itself, in the same order.
        std::size_t position = 0;
        for (const ClientPtr& client : subscribers->clients) {
          notifyOne(*client, position++);
        }
        continue;
      }
      ClientProxy* const* const clients = subscribers->deliveryOrder.data();
      const std::size_t count = subscribers->deliveryOrder.size();
      for (std::size_t position = 0; position < count; ++position) {
        // The proxies lie wherever they were allocated; asking for one a few
        // places ahead keeps a long walk from waiting on memory at every step.
        if (position + kPrefetchAhead < count) {
          __builtin_prefetch(clients[position + kPrefetchAhead]);
        }
        notifyOne(*clients[position], position);
      }
    }
  };
  // diagnostics hook: notify start and end (tracepoints, slow-notify threshold),
  // decided once per event; while idle the walk is the plain one.
  diagnostics::NotifyTimer timer;
  switch (timer.mode()) {
    case diagnostics::NotifyTimer::Mode::kIdle:
      walk([this, &event](const ClientProxy& client, std::size_t position) { notifyClient(client, event, position); });
      return;
    case diagnostics::NotifyTimer::Mode::kTicked:
      walk([this, &event, &timer](const ClientProxy& client, std::size_t position) {
        notifyClient(client, event, position);
        timer.tickedEnd(client, event);
      });
      return;
    case diagnostics::NotifyTimer::Mode::kTraced:
      walk([this, &event](const ClientProxy& client, std::size_t position) {
        const std::int64_t notifyStart = diagnostics::NotifyTimer::tracedStart(client, event);
        notifyClient(client, event, position);
        diagnostics::NotifyTimer::tracedEnd(client, event, notifyStart);
      });
      return;
  }
}

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
    deliver(*delivered);
  }
  if (shutDownAfterDelivery_) {
    // A subscriber let the last share go during that delivery.
    shutDown();
    detail::retire(this);
  }
}

void DefaultEventMgr::shutDownAfterDelivery() noexcept { shutDownAfterDelivery_ = true; }

void DefaultEventMgr::ensureDispatcherRunning() {
  if (dispatcher_ && !dispatcher_->isRunning()) {
    dispatcher_->start(this);
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

// --- Synchronous requests ----------------------------------------------------------

void DefaultEventMgr::runSynchronously(boost::function0<void> function, bool atBack,
                                       boost::shared_ptr<DefaultEventMgr> holder) {
  // One allocation for the event and its count; the function moves in.
  runAction(boost::make_shared<ActionContainerEvent>(std::move(function)), atBack, std::move(holder));
}

void DefaultEventMgr::changeSubscription(const std::string& eventType, const ClientPtr& client, bool add,
                                         boost::shared_ptr<DefaultEventMgr> holder) {
  // The event is made first, so that the function can report to it.
  const boost::shared_ptr<ActionContainerEvent> action =
      boost::make_shared<ActionContainerEvent>(boost::function0<void>());
  action->action = ChangeSubscription{this, eventType, client, add, action->syncData.get()};
  // Unsubscribe requests overtake the events already queued.
  runAction(action, add, std::move(holder));
}

void DefaultEventMgr::runAction(const boost::shared_ptr<ActionContainerEvent>& action, bool atBack,
                                boost::shared_ptr<DefaultEventMgr> holder) {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
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
  PollingRequester requester(weakSelf_, lock);
  requester.dropUnlocked(holder);
  // Set before the action was marked done, under the mutex held here.
  if (syncRequest_.await(*action, lock, requester) && action->syncData->failure) {
    std::rethrow_exception(action->syncData->failure);
  }
}

}  // namespace eventmgr
}  // namespace vexutil
