#include "DefaultEventMgr.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include <boost/bind/bind.hpp>

#include "ActionContainerEvent.h"
#include "Corvane/System/IUserException.h"
#include "Corvane/System/ThreadId.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "libhx.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define VEXUTIL_CPU_RELAX() _mm_pause()
#else
#define VEXUTIL_CPU_RELAX() ((void)0)
#endif

namespace vexutil {
namespace eventmgr {

const char* const kDeadlockReport =
    "Event dispatch from vexutil::eventmgr::EventMgr (ostrel/src/vexutil) appears to be deadlocked. "
    "Contact vexutil-maintainers@lists.vexutil.org.";

namespace {

using Clock = boost::chrono::steady_clock;

// How long an idle dispatcher keeps looking at the queue before it blocks.
// A burst of events then costs no wake-up per event, while an idle manager
// still sleeps: the spin only follows a delivery.
constexpr auto kIdleSpin = boost::chrono::microseconds(50);

// The longest idle wait; a stop whose notification was missed is seen then.
constexpr auto kIdleWait = boost::chrono::seconds(1);

// One poll of a waiting requester.
constexpr auto kPollInterval = boost::chrono::milliseconds(1);

std::string composeFailureReport(const BaseEvent& event, long position, const ClientProxy& client,
                                 const Corvane::System::IUserException* userException) {
  std::ostringstream report;
  report << "DefaultEventMgr::deliver: event [";
  event.writeDescription(report);
  report << "] client [" << position << " " << client.getClassId() << " : " << client.getInstanceId() << '\n';
  if (userException != nullptr) {
    report << "] Exception [" << userException->getSource() << ":" << userException->getMessage() << '\n';
  } else {
    report << "] Unknown Exception" << '\n';
  }
  return report.str();
}

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
  const ClientPtr dispatcherAdapter(new ClientAdapter<EventDispatcher, ActionContainerEvent>(
      dispatcher_.get(), &EventDispatcher::onActionEvent));
  addSubscription(ActionContainerEvent::typeName(), dispatcherAdapter);
  dispatcher_->start(this);
}

DefaultEventMgr::~DefaultEventMgr() {
  EventQueue pending;
  try {
    boost::mutex::scoped_lock instanceLock(detail::instanceMutex());
    detail::switchInstanceToDummy();
    {
      boost::mutex::scoped_lock queueLock(queueMutex_);
      pending.swap(queue_);
      queuedCount_.store(0, std::memory_order_relaxed);
    }
    if (dispatcher_) {
      dispatcher_->stop(this);
    }
    releasePendingActions(pending);
    table_.clear();
    subscriptionCount_.store(0, std::memory_order_relaxed);
    std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers;
    {
      boost::mutex::scoped_lock mailerLock(mailerMutex_);
      mailers.swap(mailers_);
    }
    // Emptied mailers withdraw nothing when they are destroyed: the table is
    // already clear, and nobody may wait for the stopped dispatcher.
    for (const boost::shared_ptr<ProxyMailer>& mailer : mailers) {
      mailer->clearAll();
    }
    mailers.clear();
    dispatcher_.reset();
    pending.clear();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor lets nothing out.
  }
}

// --- Publishing ----------------------------------------------------------------

void DefaultEventMgr::publish(const BaseEvent& event, bool synchronous) {
  // Hold the manager for the call, except on the dispatcher thread: the
  // dispatcher must never own the manager, or a release elsewhere could make
  // it destroy the manager under its own feet.
  boost::shared_ptr<DefaultEventMgr> self;
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
  const EventPtr copy(event.clone());
  if (!copy) {
    return;  // A clone() that yields nothing has nothing to publish.
  }
  if (!synchronous) {
    enqueue(copy, true);
    return;
  }
  runSynchronously(boost::bind(&DefaultEventMgr::deliver, this, copy), true, std::move(self));
}

void DefaultEventMgr::publish(const BaseEvent& event) { publish(event, true); }

void DefaultEventMgr::enqueue(const EventPtr& event, bool atBack) {
  {
    boost::mutex::scoped_lock lock(queueMutex_);
    if (atBack) {
      queue_.push_back(event);
    } else {
      queue_.push_front(event);
    }
    queuedCount_.store(queue_.size(), std::memory_order_release);
  }
  queueCondition_.notify_all();
}

void DefaultEventMgr::wakeDispatcher() {
  // Passing through the queue mutex orders the stop request before the
  // dispatcher's next look at the queue, so the wake-up cannot be missed.
  { boost::mutex::scoped_lock lock(queueMutex_); }
  queueCondition_.notify_all();
}

// --- Queries -------------------------------------------------------------------

unsigned int DefaultEventMgr::getSubscriptionCount() const {
  return subscriptionCount_.load(std::memory_order_acquire);
}

unsigned int DefaultEventMgr::getPendingEventCount() const {
  boost::mutex::scoped_lock lock(queueMutex_);
  return static_cast<unsigned int>(queue_.size());
}

bool DefaultEventMgr::isDispatchOrMainThread() const {
  if (!dispatcher_) {
    return false;
  }
  if (dispatcher_->isDispatcherThread()) {
    return true;
  }
  return hxIsSignalThread() != 0;
}

bool DefaultEventMgr::isDispatcherThread() const noexcept {
  return dispatcher_ && dispatcher_->isDispatcherThread();
}

bool DefaultEventMgr::isStopping() const noexcept { return dispatcher_ && dispatcher_->isStopRequested(); }

std::size_t DefaultEventMgr::getMailerCount() const {
  boost::mutex::scoped_lock lock(mailerMutex_);
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
  runSynchronously(boost::bind(&DefaultEventMgr::addSubscription, this, eventType, client), true);
}

void DefaultEventMgr::subscribe(const TypeList& eventTypes, const ClientPtr& client) {
  if (isDispatcherThread()) {
    throw NotifyDeadlockException();
  }
  for (const std::string& eventType : eventTypes) {
    subscribe(eventType, client);
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
  // Built (and, for a duplicate, destroyed) outside mailerMutex_: both wait
  // for the dispatcher thread.
  const boost::shared_ptr<ProxyMailer> mailer(new ProxyMailer(delayedInputTypes, triggerInputTypes, client));
  boost::mutex::scoped_lock lock(mailerMutex_);
  mailers_.insert(mailer);
}

void DefaultEventMgr::unSubscribe(const std::string& eventType, const ClientPtr& client) {
  if (!client || eventType.empty()) {
    return;
  }
  if (isDispatcherThread()) {
    removeSubscription(eventType, client);
    return;
  }
  runSynchronously(boost::bind(&DefaultEventMgr::removeSubscription, this, eventType, client), false);
}

void DefaultEventMgr::unSubscribe(const TypeList& eventTypes, const ClientPtr& client) {
  for (const std::string& eventType : eventTypes) {
    unSubscribe(eventType, client);
  }
}

void DefaultEventMgr::unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                  const ClientPtr& client) {
  if (!client) {
    return;
  }
  // The key is a full mailer: it subscribes now and withdraws when released.
  const ProxyMailer key(delayedInputTypes, triggerInputTypes, client);
  std::vector<boost::shared_ptr<ProxyMailer>> erased;
  {
    boost::mutex::scoped_lock lock(mailerMutex_);
    for (auto it = mailers_.begin(); it != mailers_.end();) {
      if (!(**it < key) && !(key < **it)) {
        erased.push_back(*it);
        it = mailers_.erase(it);
      } else {
        ++it;
      }
    }
  }
  // `erased` goes before `key`: the erased mailers withdraw their
  // subscriptions first, outside mailerMutex_.
}

void DefaultEventMgr::countSubscriptions(const std::string& eventType, long delta) {
  if (eventType != ActionContainerEvent::typeName()) {
    subscriptionCount_.fetch_add(static_cast<unsigned int>(delta), std::memory_order_acq_rel);
  }
}

void DefaultEventMgr::addSubscription(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  std::shared_ptr<ClientSet>& clients = table_[eventType];
  if (!clients) {
    clients = std::make_shared<ClientSet>();
  } else if (clients.use_count() > 1 && clients->find(client) == clients->end()) {
    // A delivery holds this set: change a copy and leave its snapshot alone.
    clients = std::make_shared<ClientSet>(*clients);
  }
  // A subscriber that is already in the set keeps its entry; the new proxy is
  // dropped without a report.
  if (clients->insert(client).second) {
    countSubscriptions(eventType, 1);
  }
}

void DefaultEventMgr::removeSubscription(const std::string& eventType, const ClientPtr& client) {
  if (!client) {
    return;
  }
  const auto found = table_.find(eventType);
  if (found == table_.end()) {
    return;
  }
  std::shared_ptr<ClientSet>& clients = found->second;
  auto member = clients->find(client);
  if (member == clients->end()) {
    return;
  }
  if (clients.use_count() > 1) {
    clients = std::make_shared<ClientSet>(*clients);
    member = clients->find(client);
  }
  clients->erase(member);
  countSubscriptions(eventType, -1);
  if (clients->empty()) {
    table_.erase(found);
  }
}

// --- Delivery --------------------------------------------------------------------

void DefaultEventMgr::deliver(const EventPtr& event) {
  for (const std::string& eventType : event->getTypes()) {
    const auto found = table_.find(eventType);
    if (found == table_.end()) {
      continue;
    }
    // The snapshot: subscribers may change the table from inside notify().
    const std::shared_ptr<const ClientSet> clients = found->second;
    long position = 0;
    for (const ClientPtr& client : *clients) {
      try {
        client->notify(*event);
      } catch (const Corvane::System::IUserException& failure) {
        storePendingReport(composeFailureReport(*event, position, *client, &failure));
      } catch (...) {
        storePendingReport(composeFailureReport(*event, position, *client, nullptr));
      }
      ++position;
    }
  }
}

void DefaultEventMgr::dispatchNext() {
  EventPtr event;
  {
    boost::mutex::scoped_lock lock(queueMutex_);
    if (queue_.empty()) {
      lock.unlock();
      const Clock::time_point spinEnd = Clock::now() + kIdleSpin;
      unsigned spins = 0;
      while (queuedCount_.load(std::memory_order_acquire) == 0 && !isStopping()) {
        VEXUTIL_CPU_RELAX();
        if ((++spins & 63U) == 0 && Clock::now() >= spinEnd) {
          break;
        }
      }
      lock.lock();
      if (queue_.empty()) {
        if (!isStopping()) {
          queueCondition_.wait_until(lock, Clock::now() + kIdleWait);
        }
        return;  // An event that arrived meanwhile is taken by the next cycle.
      }
    }
    event.swap(queue_.front());
    queue_.pop_front();
    queuedCount_.store(queue_.size(), std::memory_order_release);
  }
  if (event) {
    deliver(event);
  }
}

void DefaultEventMgr::ensureDispatcherRunning() {
  if (dispatcher_ && !dispatcher_->isRunning()) {
    dispatcher_->start(this);
  }
}

void DefaultEventMgr::releasePendingActions(EventQueue& events) {
  for (const EventPtr& event : events) {
    // The type test alone would trust a foreign event that claims the name.
    const auto* action = dynamic_cast<const ActionContainerEvent*>(event.get());
    if (action != nullptr) {
      action->markDone();
    }
  }
}

// --- Reports ---------------------------------------------------------------------

void DefaultEventMgr::storePendingReport(std::string report) {
  boost::mutex::scoped_lock lock(reportMutex_);
  report_ = std::move(report);
  reportPending_.store(true, std::memory_order_release);
}

void DefaultEventMgr::printPendingReport() {
  if (!reportPending_.load(std::memory_order_acquire)) {
    return;
  }
  std::string report;
  {
    boost::mutex::scoped_lock lock(reportMutex_);
    if (!reportPending_.load(std::memory_order_relaxed)) {
      return;
    }
    report.swap(report_);
    reportPending_.store(false, std::memory_order_relaxed);
  }
  hxPrintf("%s", report.c_str());
}

// --- Synchronous requests ----------------------------------------------------------

void DefaultEventMgr::runSynchronously(const boost::function0<void>& function, bool atBack,
                                       boost::shared_ptr<DefaultEventMgr> holder) {
  const boost::shared_ptr<ActionContainerEvent> action(new ActionContainerEvent(function));
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
  boost::mutex::scoped_lock lock(action->getMutex());
  enqueue(action, atBack);
  const boost::weak_ptr<DefaultEventMgr> weakManager = weakSelf_;
  // If this thread ends up letting the manager go, its destructor marks the
  // queued actions done, this one included: it must not find the action's
  // mutex held by its own thread.
  const auto dropUnlocked = [&lock](boost::shared_ptr<DefaultEventMgr>& manager) {
    lock.unlock();
    manager.reset();
    lock.lock();
  };
  dropUnlocked(holder);
  unsigned long polls = 0;
  for (;;) {
    {
      boost::shared_ptr<DefaultEventMgr> manager = weakManager.lock();
      if (!manager) {
        return;  // Shut down: the request is released without having run.
      }
      manager->ensureDispatcherRunning();
      manager->printPendingReport();
      if (polls == kDeadlockReportPoll) {
        hxPuts(kDeadlockReport);
      }
      ++polls;
      try {
        manager->invokeOnceOnMainThread();
      } catch (...) {
        dropUnlocked(manager);
        throw;
      }
      dropUnlocked(manager);
    }
    if (action->waitDone(lock, Clock::now() + kPollInterval)) {
      return;
    }
  }
}

}  // namespace eventmgr
}  // namespace vexutil
