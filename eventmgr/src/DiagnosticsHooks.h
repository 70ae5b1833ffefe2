// SPDX-License-Identifier: MIT
// The calls that the event manager makes into the diagnostics (see
// vexutil/eventmgr/Diagnostics.h), with the static tracepoints they fire.
//
// Each call site in the manager is one line, marked "diagnostics hook". What
// a hook does while nobody asks (no threshold, no observer, no tracer) is
// inlined here and costs a few loads and untaken branches: no lock, no
// atomic read-modify-write, no clock read. The state the hooks share with the
// rest of the diagnostics, the probes' list and the timing and counting
// schemes are in DiagnosticsState.h; everything else is out of line.
#ifndef VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSHOOKS_H
#define VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSHOOKS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "DiagnosticsState.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

// publish(): an event accepted for delivery. A synchronous one is counted
// when its request runs (see DeliveryOutcome): a request that never runs,
// refused on the dispatcher thread or dropped by a shutdown, publishes
// nothing.
inline void notePublished(const BaseEvent& event, bool synchronous) noexcept {
  if (!synchronous) {
    countPublished();
  }
  if (VEXUTIL_PROBE_ENABLED(publish)) {
    STAP_PROBE2(vexutil, publish, typeOf(event), synchronous ? 1 : 0);
  }
}

// enqueue(): the time stamp a queued entry carries; 0 unless its wait will
// be judged or traced.
inline std::int64_t queueStamp() noexcept {
  if (VEXUTIL_PROBE_ENABLED(dequeue)) {
    return nowNs();
  }
  if (queueThresholdNs.load(std::memory_order_relaxed) > 0) {
    return currentTick();
  }
  return 0;
}

// dispatchNext(), under the queue lock: an entry taken, `left` behind it.
inline void noteDequeue(const BaseEvent* event, std::size_t left, std::int64_t stampNs) noexcept {
  const std::uint64_t depth = left + 1;
  if (depth > dispatcherCounts.queueHighWater.load(std::memory_order_relaxed)) {
    beginCountsChange();
    dispatcherCounts.queueHighWater.store(depth, std::memory_order_release);
    endCountsChange();
  }
  if (VEXUTIL_PROBE_ENABLED(dequeue)) {
    const std::int64_t waited = stampNs != 0 ? nowNs() - stampNs : 0;
    STAP_PROBE3(vexutil, dequeue, event != nullptr ? typeOf(*event) : "", left, waited);
  }
}

// What is being delivered.
enum class Delivered {
  kQueuedEntry,       // An entry taken from the queue: an event or a request.
  kPublishedEvent,    // An event published asynchronously, taken from the queue.
  kSynchronousEvent,  // An event published synchronously, inside its request.
};

// Around the delivery of one queued entry, and of a synchronously published
// event inside its request: judges the queue wait, then sorts a published
// event into delivered, failed or noSubscriber when its delivery ends.
class DeliveryOutcome {
 public:
  DeliveryOutcome(const BaseEvent& event, std::int64_t stampNs, Delivered what) noexcept
      : event_(event), counted_(what != Delivered::kQueuedEntry) {
    if (what == Delivered::kSynchronousEvent) {
      countPublished();
    }
    if (stampNs != 0) {
      const std::int64_t threshold = queueThresholdNs.load(std::memory_order_relaxed);
      if (threshold > 0 && currentTick() - stampNs > threshold) {
        reportSlowQueueWait(event, nowNs() - stampNs);
      }
    }
    if (counted_) {
      dispatcherCounts.subscribersFound.store(false, std::memory_order_relaxed);
      exceptionsBefore_ = dispatcherCounts.exceptions.load(std::memory_order_relaxed);
    }
  }
  ~DeliveryOutcome() {
    if (counted_) {
      finishCountedDelivery(event_, exceptionsBefore_);
    }
  }
  DeliveryOutcome(const DeliveryOutcome&) = delete;
  DeliveryOutcome& operator=(const DeliveryOutcome&) = delete;

 private:
  const BaseEvent& event_;
  const bool counted_;
  std::uint64_t exceptionsBefore_ = 0;
};

// deliver(): one of the event's type names has subscribers.
inline void noteSubscribersFound() noexcept {
  dispatcherCounts.subscribersFound.store(true, std::memory_order_relaxed);
}

// Around the notify() calls of one delivery: how they are timed is decided
// once per delivery, so that an idle delivery walks its subscribers with no
// per-notify cost.
//  - kIdle: no threshold, no tracer; nothing is timed.
//  - kTicked: a threshold is set. The tick that ended one notify() starts
//    the next: after each call, one plain load and a compare; the clock is
//    read only when the tick moved on, which a short call almost never sees.
//  - kTraced: a tracer listens; each call is timed on the clock.
class NotifyTimer {
 public:
  enum class Mode { kIdle, kTicked, kTraced };

  NotifyTimer() noexcept {
    if (VEXUTIL_PROBE_ENABLED(notify_start)) {  // Also notify_end's.
      mode_ = Mode::kTraced;
    } else if (notifyThresholdNs.load(std::memory_order_relaxed) > 0) {
      tick_ = currentTick();
      mode_ = tick_ != 0 ? Mode::kTicked : Mode::kIdle;
    }
  }
  Mode mode() const noexcept { return mode_; }
  // kTicked: the tick at which the first notify() starts.
  std::int64_t firstTick() const noexcept { return tick_; }

  // kTicked: after each notify(); `tick` is the one at which it started, and
  // becomes the one at which the next starts.
  static void tickedEnd(const ClientProxy& client, const BaseEvent& event, std::int64_t& tick) noexcept {
    const std::int64_t now = tickNs.load(std::memory_order_relaxed);
    if (now > tick) {
      finishNotify(client, event, tick);
      tick = now;
    }
  }

  // kTraced: before and after each notify().
  static std::int64_t tracedStart(const ClientProxy& client, const BaseEvent& event) noexcept {
    return probeNotifyStart(client, event);
  }
  static void tracedEnd(const ClientProxy& client, const BaseEvent& event, std::int64_t startNs) noexcept {
    finishNotify(client, event, startNs);
  }

  NotifyTimer(const NotifyTimer&) = delete;
  NotifyTimer& operator=(const NotifyTimer&) = delete;

 private:
  Mode mode_ = Mode::kIdle;
  std::int64_t tick_ = 0;  // kTicked: the start of the next notify().
};

// reportFailure(), inside the handler that caught a subscriber's exception.
void noteSubscriberFailure(const BaseEvent& event, const ClientProxy& client) noexcept;

// addSubscription(), removeSubscription().
inline void noteSubscription(const std::string& eventType, const ClientProxy& client, bool subscribe) noexcept {
  if (subscribe ? VEXUTIL_PROBE_ENABLED(subscribe) : VEXUTIL_PROBE_ENABLED(unsubscribe)) {
    probeSubscription(eventType, client, subscribe);
  }
}

// runAction(): the wait of a requester, from its request being queued to
// its return.
class SyncWaitProbe {
 public:
  explicit SyncWaitProbe(const void* request) noexcept : request_(request) {
    if (VEXUTIL_PROBE_ENABLED(sync_wait_start)) {
      STAP_PROBE1(vexutil, sync_wait_start, request);
    }
    if (VEXUTIL_PROBE_ENABLED(sync_wait_end)) {
      startNs_ = nowNs();
    }
  }
  ~SyncWaitProbe() {
    if (VEXUTIL_PROBE_ENABLED(sync_wait_end)) {
      const std::int64_t waited = startNs_ != 0 ? nowNs() - startNs_ : 0;
      STAP_PROBE2(vexutil, sync_wait_end, request_, waited);
    }
  }
  SyncWaitProbe(const SyncWaitProbe&) = delete;
  SyncWaitProbe& operator=(const SyncWaitProbe&) = delete;

 private:
  const void* request_;
  std::int64_t startNs_ = 0;
};

// runAction(): the deadlock report has just been printed.
inline void noteDeadlockReport(const void* request, unsigned long polls) noexcept {
  if (VEXUTIL_PROBE_ENABLED(deadlock_report)) {
    STAP_PROBE2(vexutil, deadlock_report, request, polls);
  }
}

}  // namespace diagnostics
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSHOOKS_H
