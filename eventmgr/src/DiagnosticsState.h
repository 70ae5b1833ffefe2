// SPDX-License-Identifier: MIT
// The diagnostics' process-wide state that the inline hooks of
// DiagnosticsHooks.h read and write: the tracepoints' semaphores, the clock,
// the thresholds and the ticker's tick, the dispatcher's counts; and the
// out-of-line functions the hooks call, each defined in the source file of
// its job:
//   DiagnosticsProbes.cpp      the semaphores, the probes with costly arguments
//   DiagnosticsThresholds.cpp  the thresholds, their variables, the ticker
//   DiagnosticsCounts.cpp      the counts and their snapshot
//   DiagnosticsReports.cpp     the observer and the reports made for it
//   ReadableNames.cpp          subscriber class names, exception descriptions
//
// Everything is process-wide. Objects with destructors are built before, and
// torn down after, every ordinary static of the library
// (VEXUTIL_EARLY_STATIC): the manager's owner is one of those, and its
// dispatcher thread may run a hook until it is joined. No early static reads
// another while it is built or torn down, so their order does not matter.
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
#ifndef VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSSTATE_H
#define VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSSTATE_H

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

inline const char* typeOf(const BaseEvent& event) noexcept { return event.getTypes().front().c_str(); }

// --- Out of line -------------------------------------------------------------

void countPublished() noexcept;
void reportSlowQueueWait(const BaseEvent& event, std::int64_t waitedNs) noexcept;
std::int64_t probeNotifyStart(const ClientProxy& client, const BaseEvent& event) noexcept;
void finishNotify(const ClientProxy& client, const BaseEvent& event, std::int64_t startNs) noexcept;
void finishCountedDelivery(const BaseEvent& event, std::uint64_t exceptionsBefore) noexcept;
void probeSubscription(const std::string& eventType, const ClientProxy& client, bool subscribe) noexcept;

// finishNotify(), while a threshold is set: a notify() of `client` took
// `tookNs`; if that is the longest yet, the counts take it with the
// subscriber's name. Throws std::bad_alloc, the longest then unchanged.
void noteNotifyDuration(const ClientProxy& client, std::int64_t tookNs);

}  // namespace diagnostics
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DIAGNOSTICSSTATE_H
