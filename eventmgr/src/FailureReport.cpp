// SPDX-License-Identifier: MIT
#include "FailureReport.h"

#include <sstream>
#include <utility>

#include "Corvane/System/IUserException.h"
#include "DiagnosticsHooks.h"
#include "libhx.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

namespace {

std::string compose(const BaseEvent& event, long position, const ClientProxy& client,
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

void FailureReport::store(const BaseEvent& event, std::size_t position, const ClientProxy& client,
                          const Corvane::System::IUserException* userException) noexcept {
  try {
    std::string report = compose(event, static_cast<long>(position), client, userException);
    const MutexLock lock(mutex_);
    report_ = std::move(report);
    pending_.store(true, std::memory_order_release);
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory, or the event could not describe
    // itself: the report is dropped and delivery goes on.
  }
  // diagnostics hook: subscriber failure (count, observer); store() runs inside the handler that caught
  // the subscriber's exception, so the observer can be handed std::current_exception()
  diagnostics::noteSubscriberFailure(event, client);
}

void FailureReport::takeAndPrint() noexcept {
  std::string report;
  try {
    const MutexLock lock(mutex_);
    if (!pending_.load(std::memory_order_relaxed)) {
      return;
    }
    report.swap(report_);
    pending_.store(false, std::memory_order_relaxed);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a mutex that cannot be taken leaves the report for later.
    return;
  }
  try {
    hxPrintf("%s", report.c_str());
  } catch (...) {  // NOLINT(bugprone-empty-catch): the host could not print it; the report is dropped.
  }
}

}  // namespace eventmgr
}  // namespace vexutil
