// SPDX-License-Identifier: MIT
/// \file
/// Diagnostics: what the event manager is doing, for the application that
/// hosts it.
///
/// ### Overview
/// Three things, all off or idle until asked for, all process-wide (they
/// follow whichever default manager runs):
///
/// * An observer: one function that the application installs. It is called
///   on the dispatcher thread for every exception a subscriber throws, with
///   the event, the subscriber (its readable class name and its ids) and the
///   exception, and for every slow-subscriber report (below). The existing
///   failure report line, printed by the next publishing thread, stays as it
///   is; the observer comes in addition.
/// * Slow-subscriber thresholds, off by default: a notify() that runs longer
///   than the notify threshold, and an event that waited in the queue longer
///   than the queue threshold, are reported with the event type, the
///   subscriber's name and the duration, to the observer if one is installed,
///   otherwise through the host's hxPrintf. Each subscriber and event type is
///   reported at most once per report interval (default 10 s). The
///   environment variables VEXUTIL_SLOW_NOTIFY_MS and VEXUTIL_SLOW_QUEUE_MS
///   (whole milliseconds, read once when the library is loaded) set the
///   thresholds as the setters do.
/// * Live counts (EventCounts), a snapshot cheap enough to take from any
///   thread at any rate.
///
/// Static tracepoints (provider "vexutil") are described in
/// scripts/vexutil-trace.bt, which uses them.
///
/// ### Thread safety
/// Every member may be called from any thread, also from inside a subscriber
/// or the observer. Replacing or removing the observer while it runs is safe:
/// a call in progress finishes with the function it started with, which is
/// destroyed when the last such call returns.
#ifndef VEXUTIL_EVENTMGR_DIAGNOSTICS_H
#define VEXUTIL_EVENTMGR_DIAGNOSTICS_H

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/SubscriberClassName.h"

namespace vexutil {
namespace eventmgr {

/// One thing the observer is told about.
struct DiagnosticReport {
  enum class Kind {
    kSubscriberFailure,  ///< A subscriber's notify() threw `exception`.
    kSlowNotify,         ///< A subscriber's notify() took `duration`.
    kSlowQueueWait,      ///< The event waited `duration` in the queue.
  };

  Kind kind = Kind::kSubscriberFailure;
  /// The event; valid only during the observer's call.
  const BaseEvent* event = nullptr;
  /// The event's most derived type name.
  std::string eventType;
  /// The subscriber's readable name (see subscriberClassName()); empty for
  /// kSlowQueueWait.
  std::string subscriber;
  /// The subscriber's ids as the manager knows them; 0 for kSlowQueueWait.
  std::uint64_t subscriberClassId = 0;
  std::uint64_t subscriberInstanceId = 0;
  /// kSubscriberFailure: what notify() threw. Null otherwise.
  std::exception_ptr exception;
  /// kSlowNotify, kSlowQueueWait: the time measured. Zero otherwise.
  std::chrono::nanoseconds duration{0};
  /// The report as one readable line, ending in a line end; what is printed
  /// when no observer is installed.
  std::string text;
};

/// The function an application installs; see Diagnostics::setObserver().
using DiagnosticObserver = std::function<void(const DiagnosticReport&)>;

/// A snapshot of the live counts, process-wide since the library was loaded.
///
/// Every event handed to publish() (synchronous or not) that the manager
/// accepts is counted once in `published`, when it is queued. When its
/// delivery ends it is counted in exactly one of:
/// * `noSubscriber`: none of its type names had a subscriber;
/// * `failed`: at least one subscriber's notify() threw;
/// * `delivered`: otherwise (at least one subscriber, none threw).
/// So published = delivered + failed + noSubscriber + the published events
/// still queued or in delivery; once the queue is empty and no delivery runs,
/// the equation holds without the last term. Events that a shutdown takes out
/// of the queue are never delivered and stay in the last term. The manager's
/// own requests (subscribe, unSubscribe) are not events and are not counted.
struct EventCounts {
  std::uint64_t published = 0;
  std::uint64_t delivered = 0;
  std::uint64_t failed = 0;
  std::uint64_t noSubscriber = 0;
  /// The most derived type name of the latest event counted in noSubscriber.
  std::string lastNoSubscriberType;
  /// Exceptions thrown by subscribers (an event can count several).
  std::uint64_t subscriberExceptions = 0;
  /// Entries in the queue now (events and requests), and the most there ever
  /// were at once.
  std::uint64_t queueDepth = 0;
  std::uint64_t queueHighWater = 0;
  /// The longest notify() measured, and its subscriber's readable name.
  /// notify() is timed only while a slow-notify threshold is set, and to the
  /// tick of the slow-subscriber timing (see setSlowNotifyThreshold()): a
  /// call that ends within the tick it started in is not measured. Zero and
  /// empty until a call is.
  std::chrono::nanoseconds longestNotify{0};
  std::string longestNotifySubscriber;
};

/// Static members only: the manager's virtual interface stays as it is.
class VEXUTIL_API Diagnostics {
 public:
  Diagnostics() = delete;

  /// Installs `observer`, replacing the one installed before; an empty
  /// function removes it. The observer runs on the dispatcher thread, as
  /// subscribers do, and must not wait for the dispatcher (no subscribe, no
  /// synchronous publish). Whatever it throws is caught and dropped.
  /// \post Reports made after the call go to `observer`.
  /// \par Thread
  /// Any thread. Throws std::bad_alloc when memory runs out (nothing changes).
  static void setObserver(DiagnosticObserver observer);

  /// Reports notify() calls longer than `threshold`; zero or negative turns
  /// the report, and the timing of notify(), off (the default).
  ///
  /// While a threshold (this or the queue's) is set, a thread of the library
  /// keeps a coarse clock that ticks every eighth of the smaller threshold
  /// (every 1 ms at the most, every 100 ms at the least); deliveries read the
  /// tick, not the clock. A time reported is never below the true one and at
  /// most about one tick above it, so a call just under the threshold may,
  /// rarely, be reported. The thread ends once both thresholds are off.
  /// \par Thread
  /// Any thread; never throws. Takes effect with the next notify().
  static void setSlowNotifyThreshold(std::chrono::nanoseconds threshold) noexcept;
  static std::chrono::nanoseconds getSlowNotifyThreshold() noexcept;

  /// Reports events that waited in the queue longer than `threshold`; zero or
  /// negative turns it off (the default). Applies to events queued after the
  /// call.
  /// \par Thread
  /// Any thread; never throws.
  static void setSlowQueueThreshold(std::chrono::nanoseconds threshold) noexcept;
  static std::chrono::nanoseconds getSlowQueueThreshold() noexcept;

  /// The least time between two slow reports of one subscriber and event type
  /// (for queue waits, of one event type). Default 10 s; zero reports every
  /// one.
  /// \par Thread
  /// Any thread; never throws.
  static void setReportInterval(std::chrono::nanoseconds interval) noexcept;
  static std::chrono::nanoseconds getReportInterval() noexcept;

  /// The live counts. The outcome counts are taken together (never half of
  /// one delivery), before `published`, so `published` is never below their
  /// sum. `queueDepth` is 0 while no default manager runs.
  /// \par Thread
  /// Any thread, at any rate: it takes no lock that a delivery takes, only
  /// the queue lock once, for the depth. Throws std::bad_alloc when memory
  /// runs out.
  static EventCounts getCounts();

  /// A readable description of an exception: "<type>: <what()>" for standard
  /// exceptions, "<first text>: <second text>" for the host's
  /// Corvane::System::IUserException, otherwise its demangled type.
  /// \par Thread
  /// Any thread. Throws std::bad_alloc when memory runs out.
  static std::string describeException(const std::exception_ptr& exception);
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_DIAGNOSTICS_H
