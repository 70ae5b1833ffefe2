// SPDX-License-Identifier: MIT
// The observer, and the reports made for it: a subscriber's failure, a slow
// notify(), a slow queue wait. A slow report goes to the host's output when
// no observer is installed, and at most once per subscriber, event type and
// report interval.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "DiagnosticsHooks.h"
#include "DiagnosticsState.h"
#include "EventDispatcher.h"
#include "TypeNames.h"
#include "libhx.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/Diagnostics.h"

namespace vexutil {
namespace eventmgr {
namespace diagnostics {
namespace {

constexpr std::int64_t kDefaultReportIntervalNs = 10'000'000'000;
std::atomic<std::int64_t> reportIntervalNs{kDefaultReportIntervalNs};

struct ReportState {
  std::mutex observerMutex;
  std::shared_ptr<const DiagnosticObserver> observer;  // Guarded by observerMutex.
  std::atomic<bool> hasObserver{false};

  // When each subscriber (class id, instance id) and event type was last
  // reported slow; class and instance 0 for queue waits.
  std::mutex reportedMutex;
  std::map<std::tuple<std::uint64_t, std::uint64_t, std::string>, std::int64_t> lastReported;  // Guarded.
};

VEXUTIL_EARLY_STATIC ReportState state;

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
    noteNotifyDuration(client, tookNs);
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

}  // namespace diagnostics

void Diagnostics::setObserver(DiagnosticObserver observer) {
  using diagnostics::state;
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

void Diagnostics::setReportInterval(std::chrono::nanoseconds interval) noexcept {
  diagnostics::reportIntervalNs.store(std::max<std::int64_t>(interval.count(), 0), std::memory_order_relaxed);
}

std::chrono::nanoseconds Diagnostics::getReportInterval() noexcept {
  return std::chrono::nanoseconds(diagnostics::reportIntervalNs.load(std::memory_order_relaxed));
}

}  // namespace eventmgr
}  // namespace vexutil
