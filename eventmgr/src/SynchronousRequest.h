// SPDX-License-Identifier: MIT
// SynchronousRequest: how a thread waits for an action that it has queued for
// the dispatcher thread.
//
// The requester holds the action's mutex throughout, except inside each timed
// wait. Every poll it first does the manager's chores (through the requester
// object it is given: take a share of the manager, or learn that it is gone;
// start a dispatcher that has ended; print a pending failure report), prints
// the deadlock report once when the poll count reaches the one given to the
// constructor, runs a function that the dispatcher handed to the main thread,
// lets the manager go, and then waits up to one poll interval for the action
// to be marked done. Nothing times out: after the report the wait goes on.
//
// Thread safety
//   The object holds constants only; any number of requesters may use one at
//   once.
#ifndef VEXUTIL_EVENTMGR_SRC_SYNCHRONOUSREQUEST_H
#define VEXUTIL_EVENTMGR_SRC_SYNCHRONOUSREQUEST_H

#include <chrono>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "ActionContainerEvent.h"
#include "DiagnosticsHooks.h"

namespace vexutil {
namespace eventmgr {

// The deadlock report, printed once per request that waits too long.
extern const char* const kDeadlockReport;

// A request that is not done after this many polls prints the deadlock report.
constexpr unsigned long kDeadlockReportPoll = 60001;

class SynchronousRequest {
 public:
  using Clock = ActionContainerEvent::Clock;

  // One poll of a waiting requester.
  static constexpr std::chrono::milliseconds kPollInterval{1};
  // How long the first poll looks for the completion before it sleeps: long
  // enough for a dispatcher that sleeps to be woken and to run a short
  // request (a wake-up takes some tens of microseconds on a virtual machine),
  // which is cheaper than a sleep and wake-up of the requester too. Later
  // polls wait for a slow subscriber, and looking again would only burn the
  // core.
  static constexpr std::chrono::microseconds kFirstPollLook{50};

  explicit SynchronousRequest(unsigned long reportPoll = kDeadlockReportPoll) noexcept : reportPoll_(reportPoll) {}

  // Waits until `action` is done (true) or the requester finds the manager
  // gone (false: the request is released without having run). `lock` holds
  // the action's mutex, and holds it again on return.
  //
  // `requester` provides, called in this order at each poll:
  //   bool beginPoll()  takes a share of the manager, starts its dispatcher
  //                     if need be and prints its pending report; false when
  //                     the manager is gone;
  //   void servePoll()  runs a function handed to the main thread; may throw;
  //   void endPoll()    lets the share of the manager go.
  // An exception of servePoll() passes out after endPoll().
  template <typename Requester>
  bool await(const ActionContainerEvent& action, ActionContainerEvent::Lock& lock, Requester& requester) const {
    for (unsigned long polls = 0;;) {
      if (!requester.beginPoll()) {
        return false;
      }
      if (polls == reportPoll_) {
        printReport();
        // diagnostics hook: deadlock report tracepoint
        diagnostics::noteDeadlockReport(&action, polls);
      }
      ++polls;
      try {
        requester.servePoll();
      } catch (...) {
        requester.endPoll();
        throw;
      }
      requester.endPoll();
      if (action.waitDone(lock, Clock::now() + kPollInterval, polls == 1 ? kFirstPollLook : Clock::duration::zero())) {
        return true;
      }
    }
  }

 private:
  // hxPuts(kDeadlockReport); a report that the host cannot print is dropped.
  static void printReport() noexcept;

  unsigned long reportPoll_;
};

// The manager's side of the polls of a waiting requester, the Requester of
// SynchronousRequest::await() for a manager with ensureDispatcherRunning(),
// printPendingReport() and invokeOnceOnMainThread(). Between polls only the weak reference remains, so that
// the manager can be shut down meanwhile. If this thread ends up letting the
// manager go, the shutdown marks the queued actions done, this one included:
// it must not find the action's mutex held by its own thread, so shares are
// let go with the mutex released.
template <typename Manager>
class PollingRequester {
 public:
  PollingRequester(boost::weak_ptr<Manager> manager, ActionContainerEvent::Lock& lock)
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
  void dropUnlocked(boost::shared_ptr<Manager>& share) {
    lock_.unlock();
    share.reset();
    lock_.lock();
  }

 private:
  boost::weak_ptr<Manager> weakManager_;
  ActionContainerEvent::Lock& lock_;
  boost::shared_ptr<Manager> manager_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_SYNCHRONOUSREQUEST_H
