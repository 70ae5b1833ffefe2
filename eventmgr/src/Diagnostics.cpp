// SPDX-License-Identifier: MIT
// The diagnostics: observer, slow-subscriber reports, live counts, subscriber
// class names, and the tracepoint semaphores (see DiagnosticsHooks.h).
//
// Everything here is process-wide. Objects with destructors are built before,
// and torn down after, every ordinary static of the library
// (VEXUTIL_EARLY_STATIC): the manager's owner is one of those, and its
// dispatcher thread may run a hook until it is joined.
#include "vexutil/eventmgr/Diagnostics.h"

#include <cxxabi.h>
#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "Corvane/System/IUserException.h"
#include "DiagnosticsHooks.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "TypeNames.h"
#include "libhx.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/EventMgr.h"

// NOLINTBEGIN: the semaphores' names and section are fixed by <sys/sdt.h>.
#define VEXUTIL_DEFINE_SEMAPHORE(probe) \
  __attribute__((section(".probes"))) volatile unsigned short vexutil_##probe##_semaphore = 0
extern "C" {
VEXUTIL_DEFINE_SEMAPHORE(publish);
VEXUTIL_DEFINE_SEMAPHORE(dequeue);
VEXUTIL_DEFINE_SEMAPHORE(notify_start);
__attribute__((alias("vexutil_notify_start_semaphore"))) extern volatile unsigned short vexutil_notify_end_semaphore;
VEXUTIL_DEFINE_SEMAPHORE(subscribe);
VEXUTIL_DEFINE_SEMAPHORE(unsubscribe);
VEXUTIL_DEFINE_SEMAPHORE(sync_wait_start);
VEXUTIL_DEFINE_SEMAPHORE(sync_wait_end);
VEXUTIL_DEFINE_SEMAPHORE(deadlock_report);
}
#undef VEXUTIL_DEFINE_SEMAPHORE
// NOLINTEND

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

std::atomic<std::int64_t> notifyThresholdNs{0};
std::atomic<std::int64_t> queueThresholdNs{0};
std::atomic<std::int64_t> tickNs{0};
DispatcherCounts dispatcherCounts;

namespace {

constexpr std::int64_t kDefaultReportIntervalNs = 10'000'000'000;
std::atomic<std::int64_t> reportIntervalNs{kDefaultReportIntervalNs};

std::string demangle(const char* mangled) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> readable(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                        std::free);
  return status == 0 && readable ? std::string(readable.get()) : std::string(mangled);
}

// Published events are counted per publishing thread, each thread in a slot
// of its own, so that publishers on different cores never write one cache
// line. A slot is handed to the next new thread when its thread ends and
// keeps its count; a snapshot adds all slots up.
struct alignas(64) PublishSlot {
  std::atomic<std::uint64_t> published{0};
  PublishSlot* next = nullptr;  // Guarded by PublishCounter::mutex_.
  bool inUse = false;           // Guarded by PublishCounter::mutex_.
};

class PublishCounter {
 public:
  PublishCounter() noexcept { keyMade_ = pthread_key_create(&key_, &PublishCounter::threadEnded) == 0; }
  ~PublishCounter() {
    // No thread that ends from now on comes back here.
    if (keyMade_) {
      pthread_key_delete(key_);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    while (slots_ != nullptr) {
      delete std::exchange(slots_, slots_->next);
    }
  }
  PublishCounter(const PublishCounter&) = delete;
  PublishCounter& operator=(const PublishCounter&) = delete;

  void count() noexcept {
    PublishSlot* slot = keyMade_ ? static_cast<PublishSlot*>(pthread_getspecific(key_)) : nullptr;
    if (slot == nullptr) {
      slot = takeSlot();
      if (slot == nullptr) {
        unslotted_.fetch_add(1, std::memory_order_relaxed);
        return;
      }
    }
    bump<std::uint64_t>(slot->published);
  }

  std::uint64_t total() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t sum = unslotted_.load(std::memory_order_relaxed);
    for (const PublishSlot* slot = slots_; slot != nullptr; slot = slot->next) {
      sum += slot->published.load(std::memory_order_relaxed);
    }
    return sum;
  }

 private:
  PublishSlot* takeSlot() noexcept {
    std::lock_guard<std::mutex> lock(mutex_);
    PublishSlot* slot = slots_;
    while (slot != nullptr && slot->inUse) {
      slot = slot->next;
    }
    if (slot == nullptr) {
      slot = new (std::nothrow) PublishSlot;
      if (slot == nullptr) {
        return nullptr;
      }
      slot->next = slots_;
      slots_ = slot;
    }
    if (!keyMade_ || pthread_setspecific(key_, slot) != 0) {
      return nullptr;  // Counted as unslotted; the slot stays free.
    }
    slot->inUse = true;
    return slot;
  }
  static void threadEnded(void* slot) noexcept;

  pthread_key_t key_{};
  bool keyMade_ = false;
  std::mutex mutex_;
  PublishSlot* slots_ = nullptr;  // Guarded by mutex_.
  std::atomic<std::uint64_t> unslotted_{0};
};

// Keeps tickNs current while a threshold is set; ends when none is. See
// DiagnosticsHooks.h.
class Ticker {
 public:
  Ticker() = default;
  ~Ticker() { stop(); }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  std::int64_t start() noexcept {
    try {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!running_ && !stopped_ && period() != 0) {
        if (thread_.joinable()) {
          thread_.join();  // Ended by itself, and out of the lock already.
        }
        tickNs.store(nowNs(), std::memory_order_relaxed);
        thread_ = std::thread(&Ticker::run, this);
        running_ = true;
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): no thread, no timing.
    }
    return tickNs.load(std::memory_order_relaxed);
  }
  // A threshold changed: the next tick follows the new period.
  void wake() {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
  }
  void stop() noexcept {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  // The tick length for the thresholds set now, 0 if none is.
  static std::int64_t period() noexcept {
    const std::int64_t notify = notifyThresholdNs.load(std::memory_order_relaxed);
    const std::int64_t queue = queueThresholdNs.load(std::memory_order_relaxed);
    const std::int64_t smaller = notify <= 0 ? queue : queue <= 0 ? notify : std::min(notify, queue);
    if (smaller <= 0) {
      return 0;
    }
    constexpr std::int64_t kShortest = 1'000'000;
    constexpr std::int64_t kLongest = 100'000'000;
    return std::min(std::max(smaller / 8, kShortest), kLongest);
  }
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const std::int64_t length = period();
      if (length == 0 || stopped_) {
        break;
      }
      tickNs.store(nowNs(), std::memory_order_relaxed);
      changed_.wait_for(lock, std::chrono::nanoseconds(length));
    }
    tickNs.store(0, std::memory_order_relaxed);
    running_ = false;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool running_ = false;  // Guarded by mutex_.
  bool stopped_ = false;  // Guarded by mutex_; for good, at unload.
  std::thread thread_;    // Started and joined under mutex_, or in stop().
};

// The rest of the shared state.
struct State {
  State() {
    readThreshold("VEXUTIL_SLOW_NOTIFY_MS", notifyThresholdNs);
    readThreshold("VEXUTIL_SLOW_QUEUE_MS", queueThresholdNs);
  }
  // Whole milliseconds; anything else leaves the threshold off.
  static void readThreshold(const char* variable, std::atomic<std::int64_t>& threshold) {
    const char* const text = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): once, at load.
    if (text == nullptr || *text == '\0') {
      return;
    }
    char* end = nullptr;
    const long long milliseconds = std::strtoll(text, &end, 10);
    if (*end == '\0' && milliseconds > 0 && milliseconds < 1'000'000'000) {
      threshold.store(milliseconds * 1'000'000, std::memory_order_relaxed);
    }
  }

  PublishCounter publishCounter;
  Ticker ticker;

  std::mutex observerMutex;
  std::shared_ptr<const DiagnosticObserver> observer;  // Guarded by observerMutex.
  std::atomic<bool> hasObserver{false};

  std::mutex namesMutex;
  std::unordered_map<std::uint64_t, std::string> classNames;  // Guarded by namesMutex.

  // Dispatcher-side strings of the counts; each written only together with
  // a change that is rare (a new no-subscriber type, a new longest notify).
  std::mutex countsTextMutex;
  std::string lastNoSubscriberType;     // Guarded by countsTextMutex.
  std::string longestNotifySubscriber;  // Guarded by countsTextMutex.

  // When each subscriber (class id, instance id) and event type was last
  // reported slow; class and instance 0 for queue waits.
  std::mutex reportedMutex;
  std::map<std::tuple<std::uint64_t, std::uint64_t, std::string>, std::int64_t> lastReported;  // Guarded.
};

VEXUTIL_EARLY_STATIC State state;

void PublishCounter::threadEnded(void* slot) noexcept {
  std::lock_guard<std::mutex> lock(state.publishCounter.mutex_);
  static_cast<PublishSlot*>(slot)->inUse = false;
}

std::shared_ptr<const DiagnosticObserver> currentObserver() {
  if (!state.hasObserver.load(std::memory_order_acquire)) {
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(state.observerMutex);
  return state.observer;
}

std::string formatMilliseconds(std::int64_t ns) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(ns) / 1e6);
  return text;
}

std::string describeSubscriber(const std::string& name, const ClientProxy& client) {
  std::ostringstream text;
  text << name << " [" << client.getClassId() << " : " << client.getInstanceId() << "]";
  return text.str();
}

DiagnosticReport reportAbout(DiagnosticReport::Kind kind, const BaseEvent& event, const ClientProxy* client) {
  DiagnosticReport report;
  report.kind = kind;
  report.event = &event;
  report.eventType = event.getTypes().front();
  if (client != nullptr) {
    report.subscriber = subscriberClassName(*client);
    report.subscriberClassId = client->getClassId();
    report.subscriberInstanceId = client->getInstanceId();
  }
  return report;
}

// To the observer, or, for slow reports without one, to the host's output.
void deliverReport(const DiagnosticReport& report) noexcept {
  try {
    const std::shared_ptr<const DiagnosticObserver> observer = currentObserver();
    if (observer) {
      (*observer)(report);
    } else if (report.kind != DiagnosticReport::Kind::kSubscriberFailure) {
      hxPrintf("%s", report.text.c_str());
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): an observer or host output that throws is contained.
  }
}

// True, and the time noted, if (client, type) was not reported within the
// interval.
bool dueForReport(std::uint64_t classId, std::uint64_t instanceId, const std::string& eventType) {
  const std::int64_t now = nowNs();
  const std::int64_t interval = reportIntervalNs.load(std::memory_order_relaxed);
  std::lock_guard<std::mutex> lock(state.reportedMutex);
  auto inserted = state.lastReported.emplace(std::make_tuple(classId, instanceId, eventType), now);
  if (inserted.second) {
    return true;
  }
  if (now - inserted.first->second < interval) {
    return false;
  }
  inserted.first->second = now;
  return true;
}

}  // namespace

void countPublished() noexcept { state.publishCounter.count(); }

std::int64_t startTicker() noexcept { return state.ticker.start(); }

void reportSlowQueueWait(const BaseEvent& event, std::int64_t waitedNs) noexcept {
  try {
    if (!dueForReport(0, 0, event.getTypes().front())) {
      return;
    }
    DiagnosticReport report = reportAbout(DiagnosticReport::Kind::kSlowQueueWait, event, nullptr);
    report.duration = std::chrono::nanoseconds(waitedNs);
    report.text = "vexutil: event " + report.eventType + " waited " + formatMilliseconds(waitedNs) +
                  " in the queue (threshold " + formatMilliseconds(queueThresholdNs.load(std::memory_order_relaxed)) +
                  ")\n";
    deliverReport(report);
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the report is dropped.
  }
}

std::int64_t probeNotifyStart(const ClientProxy& client, const BaseEvent& event) noexcept {
  STAP_PROBE3(vexutil, notify_start, typeOf(event), client.getClassId(), client.getInstanceId());
  return nowNs();
}

void finishNotify(const ClientProxy& client, const BaseEvent& event, std::int64_t startNs) noexcept {
  const std::int64_t tookNs = nowNs() - startNs;
  if (VEXUTIL_PROBE_ENABLED(notify_end)) {
    STAP_PROBE4(vexutil, notify_end, typeOf(event), client.getClassId(), client.getInstanceId(), tookNs);
  }
  if (notifyThresholdNs.load(std::memory_order_relaxed) <= 0) {
    return;
  }
  // The dispatcher's own subscription runs the manager's requests, a
  // synchronous delivery among them, whose subscribers are timed each on
  // their own: its time is nobody's.
  static const std::uint64_t requestRunnerClassId =
      ClientAdapter<EventDispatcher, BaseEvent>(nullptr, nullptr).getClassId();
  if (client.getClassId() == requestRunnerClassId) {
    return;
  }
  try {
    if (tookNs > dispatcherCounts.longestNotifyNs.load(std::memory_order_relaxed)) {
      std::string name = subscriberClassName(client);
      beginCountsChange();
      dispatcherCounts.longestNotifyNs.store(tookNs, std::memory_order_release);
      endCountsChange();
      std::lock_guard<std::mutex> lock(state.countsTextMutex);
      state.longestNotifySubscriber.swap(name);
    }
    const std::int64_t threshold = notifyThresholdNs.load(std::memory_order_relaxed);
    if (threshold <= 0 || tookNs <= threshold ||
        !dueForReport(client.getClassId(), client.getInstanceId(), event.getTypes().front())) {
      return;
    }
    DiagnosticReport report = reportAbout(DiagnosticReport::Kind::kSlowNotify, event, &client);
    report.duration = std::chrono::nanoseconds(tookNs);
    report.text = "vexutil: slow subscriber " + describeSubscriber(report.subscriber, client) + " took " +
                  formatMilliseconds(tookNs) + " in notify for " + report.eventType + " (threshold " +
                  formatMilliseconds(threshold) + ")\n";
    deliverReport(report);
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the report is dropped.
  }
}

void finishCountedDelivery(const BaseEvent& event, std::uint64_t exceptionsBefore) noexcept {
  const bool found = dispatcherCounts.subscribersFound.load(std::memory_order_relaxed);
  const bool threw = dispatcherCounts.exceptions.load(std::memory_order_relaxed) != exceptionsBefore;
  if (found) {
    beginCountsChange();
    bump<std::uint64_t>(threw ? dispatcherCounts.failed : dispatcherCounts.delivered);
    endCountsChange();
    return;
  }
  // Nobody listened: rare enough in a working application to afford the
  // lock, which keeps the type name with the count.
  try {
    const std::string& type = event.getTypes().front();
    std::lock_guard<std::mutex> lock(state.countsTextMutex);
    if (state.lastNoSubscriberType != type) {
      state.lastNoSubscriberType = type;
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the old name stays.
  }
  beginCountsChange();
  bump<std::uint64_t>(dispatcherCounts.noSubscriber);
  endCountsChange();
}

void noteSubscriberFailure(const BaseEvent& event, const ClientProxy& client) noexcept {
  beginCountsChange();
  bump<std::uint64_t>(dispatcherCounts.exceptions);
  endCountsChange();
  if (!state.hasObserver.load(std::memory_order_acquire)) {
    return;
  }
  try {
    DiagnosticReport report = reportAbout(DiagnosticReport::Kind::kSubscriberFailure, event, &client);
    report.exception = std::current_exception();
    report.text = "vexutil: subscriber " + describeSubscriber(report.subscriber, client) + " failed on " +
                  report.eventType + ": " + Diagnostics::describeException(report.exception) + "\n";
    deliverReport(report);
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the report is dropped.
  }
}

void probeSubscription(const std::string& eventType, const ClientProxy& client, bool subscribe) noexcept {
  if (subscribe) {
    std::string name;
    try {
      name = subscriberClassName(client);
    } catch (...) {  // NOLINT(bugprone-empty-catch): traced without a name.
    }
    STAP_PROBE4(vexutil, subscribe, eventType.c_str(), client.getClassId(), client.getInstanceId(), name.c_str());
  } else {
    STAP_PROBE3(vexutil, unsubscribe, eventType.c_str(), client.getClassId(), client.getInstanceId());
  }
}

}  // namespace diagnostics

using diagnostics::state;

namespace detail {

void nameSubscriberClass(std::uint64_t classId, const std::type_info& target) noexcept {
  try {
    std::string name = diagnostics::demangle(target.name());
    std::lock_guard<std::mutex> lock(state.namesMutex);
    state.classNames[classId] = std::move(name);
  } catch (...) {  // NOLINT(bugprone-empty-catch): reports fall back to the proxy's own class.
  }
}

}  // namespace detail

std::string subscriberClassName(const ClientProxy& client) {
  {
    std::lock_guard<std::mutex> lock(state.namesMutex);
    const auto found = state.classNames.find(client.getClassId());
    if (found != state.classNames.end()) {
      return found->second;
    }
  }
  return diagnostics::demangle(typeid(client).name());
}

void Diagnostics::setObserver(DiagnosticObserver observer) {
  std::shared_ptr<const DiagnosticObserver> installed;
  if (observer) {
    installed = std::make_shared<const DiagnosticObserver>(std::move(observer));
  }
  {
    std::lock_guard<std::mutex> lock(state.observerMutex);
    state.observer.swap(installed);
    state.hasObserver.store(state.observer != nullptr, std::memory_order_release);
  }
  // The old observer goes here, outside the lock, unless a call still runs it.
}

void Diagnostics::setSlowNotifyThreshold(std::chrono::nanoseconds threshold) noexcept {
  diagnostics::notifyThresholdNs.store(std::max<std::int64_t>(threshold.count(), 0), std::memory_order_relaxed);
  state.ticker.wake();
}

std::chrono::nanoseconds Diagnostics::getSlowNotifyThreshold() noexcept {
  return std::chrono::nanoseconds(diagnostics::notifyThresholdNs.load(std::memory_order_relaxed));
}

void Diagnostics::setSlowQueueThreshold(std::chrono::nanoseconds threshold) noexcept {
  diagnostics::queueThresholdNs.store(std::max<std::int64_t>(threshold.count(), 0), std::memory_order_relaxed);
  state.ticker.wake();
}

std::chrono::nanoseconds Diagnostics::getSlowQueueThreshold() noexcept {
  return std::chrono::nanoseconds(diagnostics::queueThresholdNs.load(std::memory_order_relaxed));
}

void Diagnostics::setReportInterval(std::chrono::nanoseconds interval) noexcept {
  diagnostics::reportIntervalNs.store(std::max<std::int64_t>(interval.count(), 0), std::memory_order_relaxed);
}

std::chrono::nanoseconds Diagnostics::getReportInterval() noexcept {
  return std::chrono::nanoseconds(diagnostics::reportIntervalNs.load(std::memory_order_relaxed));
}

EventCounts Diagnostics::getCounts() {
  using diagnostics::dispatcherCounts;
  EventCounts counts;
  // The dispatcher's counts as of one moment between two of its changes.
  for (;;) {
    const std::uint64_t before = dispatcherCounts.sequence.load(std::memory_order_acquire);
    // Acquire loads: one that reads a value of a change in progress also makes
    // the odd sequence of that change visible to the check below.
    counts.delivered = dispatcherCounts.delivered.load(std::memory_order_acquire);
    counts.failed = dispatcherCounts.failed.load(std::memory_order_acquire);
    counts.noSubscriber = dispatcherCounts.noSubscriber.load(std::memory_order_acquire);
    counts.subscriberExceptions = dispatcherCounts.exceptions.load(std::memory_order_acquire);
    counts.queueHighWater = dispatcherCounts.queueHighWater.load(std::memory_order_acquire);
    counts.longestNotify = std::chrono::nanoseconds(dispatcherCounts.longestNotifyNs.load(std::memory_order_acquire));
    if ((before & 1U) == 0 && dispatcherCounts.sequence.load(std::memory_order_relaxed) == before) {
      break;
    }
    std::this_thread::yield();
  }
  // After the outcomes: every event they count was counted here before it
  // was queued (or, if synchronous, before its delivery began).
  counts.published = state.publishCounter.total();
  {
    std::lock_guard<std::mutex> lock(state.countsTextMutex);
    counts.lastNoSubscriberType = state.lastNoSubscriberType;
    counts.longestNotifySubscriber = state.longestNotifySubscriber;
  }
  if (detail::isDefaultManagerCreated()) {
    counts.queueDepth = EventMgr::instance()->getPendingEventCount();
  }
  counts.queueHighWater = std::max(counts.queueHighWater, counts.queueDepth);
  return counts;
}

std::string Diagnostics::describeException(const std::exception_ptr& exception) {
  if (!exception) {
    return "no exception";
  }
  try {
    std::rethrow_exception(exception);
  } catch (const Corvane::System::IUserException& failure) {
    return failure.getSource() + ": " + failure.getMessage();
  } catch (const std::exception& failure) {
    return diagnostics::demangle(typeid(failure).name()) + ": " + failure.what();
  } catch (...) {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    return type != nullptr ? "exception of type " + diagnostics::demangle(type->name()) : "unknown exception";
  }
}

}  // namespace eventmgr
}  // namespace vexutil
