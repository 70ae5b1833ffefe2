// SPDX-License-Identifier: MIT
// The calls that the event manager makes into the diagnostics (see
// vexutil/eventmgr/Diagnostics.h), and the static tracepoints.
//
// Each call site in the manager is one line, marked "diagnostics hook". What
// a hook does while nobody asks (no threshold, no observer, no tracer) is
// inlined here and costs a few loads and untaken branches: no lock, no
// atomic read-modify-write, no clock read. Everything else is out of line in
// Diagnostics.cpp.
//
// Tracepoints: provider "vexutil", one <sys/sdt.h> probe per event of
// interest, each with an is-enabled semaphore, so that arguments that cost
// something (ids behind a virtual call, clock reads, names) are computed only
// while a tracer is attached. The probes and their arguments:
//   publish          (type name, synchronous 0/1)
//   dequeue          (type name, entries left in the queue, queue wait ns or 0)
//   notify_start     (type name, class id, instance id)
//   notify_end       (type name, class id, instance id, duration ns)
//   subscribe        (type name, class id, instance id, subscriber name)
//   unsubscribe      (type name, class id, instance id)
//   sync_wait_start  (request address)
//   sync_wait_end    (request address, duration ns)
//   deadlock_report  (request address, polls)
// tests/tracepoints_test.sh checks this list against the built library.
//
// notify_start and notify_end share one semaphore (the second is an alias of
// the first), so that a notify() tests one word.
//
// Timing without clock reads: while a threshold is set, a ticker thread
// stores the steady clock in `tickNs` every tick (an eighth of the smaller
// threshold, 1 ms at least, 100 ms at most). A queued event and a notify()
// take the tick, a plain load, at their start and end; the clock itself is
// read only when the tick moved on meanwhile, which a short notify() almost
// never sees. A time so measured, now minus the tick at the start, is never
// below the true one and at most a tick (plus the ticker's lateness) above.
//
// Counters that the dispatcher writes are relaxed atomics written with a
// plain load and store (one writer), grouped under a sequence number so that
// a snapshot sees them as of one moment between two deliveries.
#ifndef VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSHOOKS_H
#define VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSHOOKS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#define _SDT_HAS_SEMAPHORES 1  // NOLINT(bugprone-reserved-identifier): the name <sys/sdt.h> reads.
#include <sys/sdt.h>

#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

// The is-enabled semaphores: a tracer that attaches to a probe adds one.
// Their names are fixed by <sys/sdt.h>: provider_probe_semaphore.
#define VEXUTIL_DECLARE_SEMAPHORE(probe) \
  extern "C" VEXUTIL_HIDDEN volatile unsigned short vexutil_##probe##_semaphore  // NOLINT
VEXUTIL_DECLARE_SEMAPHORE(publish);
VEXUTIL_DECLARE_SEMAPHORE(dequeue);
VEXUTIL_DECLARE_SEMAPHORE(notify_start);
VEXUTIL_DECLARE_SEMAPHORE(notify_end);
VEXUTIL_DECLARE_SEMAPHORE(subscribe);
VEXUTIL_DECLARE_SEMAPHORE(unsubscribe);
VEXUTIL_DECLARE_SEMAPHORE(sync_wait_start);
VEXUTIL_DECLARE_SEMAPHORE(sync_wait_end);
VEXUTIL_DECLARE_SEMAPHORE(deadlock_report);
#undef VEXUTIL_DECLARE_SEMAPHORE

#define VEXUTIL_PROBE_ENABLED(probe) __builtin_expect(vexutil_##probe##_semaphore != 0, 0)

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

using Clock = std::chrono::steady_clock;

// Nanoseconds on Clock; 0 means "not measured".
inline std::int64_t nowNs() noexcept {
  const std::int64_t now =
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
  return now != 0 ? now : 1;
}

// Thresholds in nanoseconds, 0 when off.
extern std::atomic<std::int64_t> notifyThresholdNs;
extern std::atomic<std::int64_t> queueThresholdNs;

// The ticker's latest clock reading; 0 while no ticker runs.
extern std::atomic<std::int64_t> tickNs;
// Starts the ticker if it does not run; returns the current tick, or 0 if no
// ticker could be started (nothing is timed then).
std::int64_t startTicker() noexcept;

inline std::int64_t currentTick() noexcept {
  const std::int64_t tick = tickNs.load(std::memory_order_relaxed);
  return tick != 0 ? tick : startTicker();
}

// Written by the dispatcher thread only (load and store), read by snapshots.
// Lines of its own: publishers read the thresholds at every event, and must
// not find them in a line that the dispatcher writes at every event.
struct alignas(64) DispatcherCounts {
  std::atomic<std::uint64_t> sequence{0};  // Odd while the values below change.
  std::atomic<std::uint64_t> delivered{0};
  std::atomic<std::uint64_t> failed{0};
  std::atomic<std::uint64_t> noSubscriber{0};
  std::atomic<std::uint64_t> exceptions{0};
  std::atomic<std::uint64_t> queueHighWater{0};
  std::atomic<std::int64_t> longestNotifyNs{0};
  // The delivery in progress: whether any of its type names had subscribers.
  std::atomic<bool> subscribersFound{false};
};
extern DispatcherCounts dispatcherCounts;

// A counter with one writer. The store is a release so that a snapshot that
// reads a value written inside a change also sees that change's opening of
// the sequence (see beginCountsChange); on x86 it is a plain store.
template <typename T>
inline void bump(std::atomic<T>& counter, T by = 1) noexcept {
  counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_release);
}

// Opens and closes a change of dispatcherCounts that a snapshot must see
// whole or not at all: a sequence lock without fences. Every value written
// inside a change is stored with release and loaded by the snapshot with
// acquire, so a snapshot that sees any of them also sees the odd sequence
// stored before it, and retries.
inline void beginCountsChange() noexcept {
  dispatcherCounts.sequence.store(dispatcherCounts.sequence.load(std::memory_order_relaxed) + 1,
                                  std::memory_order_relaxed);
}
inline void endCountsChange() noexcept {
  dispatcherCounts.sequence.store(dispatcherCounts.sequence.load(std::memory_order_relaxed) + 1,
                                  std::memory_order_release);
}

// --- Out of line -------------------------------------------------------------

void countPublished() noexcept;
void reportSlowQueueWait(const BaseEvent& event, std::int64_t waitedNs) noexcept;
std::int64_t probeNotifyStart(const ClientProxy& client, const BaseEvent& event) noexcept;
void finishNotify(const ClientProxy& client, const BaseEvent& event, std::int64_t startNs) noexcept;
void finishCountedDelivery(const BaseEvent& event, std::uint64_t exceptionsBefore) noexcept;
void probeSubscription(const std::string& eventType, const ClientProxy& client, bool subscribe) noexcept;

// --- Hooks -------------------------------------------------------------------

inline const char* typeOf(const BaseEvent& event) noexcept { return event.getTypes().front().c_str(); }

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

  // kTicked: after each notify().
  void tickedEnd(const ClientProxy& client, const BaseEvent& event) noexcept {
    const std::int64_t tick = tickNs.load(std::memory_order_relaxed);
    if (tick > tick_) {
      finishNotify(client, event, tick_);
      tick_ = tick;
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
