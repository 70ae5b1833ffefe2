// SPDX-License-Identifier: MIT
// FailureReport: the subscriber-failure report of one manager. When a
// subscriber throws, the dispatcher composes a report of the event, the
// client and the exception and stores it; the next thread that publishes or
// waits for the dispatcher prints it with hxPrintf("%s"). Only the latest
// unprinted report is kept.
//
// Thread safety
//   The slot is guarded by mutex_. pending_ mirrors "the slot holds a
//   report" so that printers, one per publish, skip the mutex when nothing
//   is pending. mutex_ is a leaf: nothing is taken while it is held.
#ifndef VEXUTIL_EVENTMGR_SRC_FAILUREREPORT_H
#define VEXUTIL_EVENTMGR_SRC_FAILUREREPORT_H

#include <atomic>
#include <cstddef>
#include <string>

#include "ThreadSafety.h"

namespace Corvane {
namespace System {
class IUserException;
}  // namespace System
}  // namespace Corvane

namespace vexutil {
namespace eventmgr {

class BaseEvent;
class ClientProxy;

class FailureReport {
 public:
  // Composes the report of `client`'s failure at `position` among the
  // subscribers of a name while `event` was delivered (`userException`: the
  // host exception it threw, or null for any other) and stores it, replacing
  // an unprinted one. A report that cannot be composed (out of memory, or an
  // event that cannot describe itself) is dropped. Never throws.
  void store(const BaseEvent& event, std::size_t position, const ClientProxy& client,
             const Corvane::System::IUserException* userException) noexcept;

  // Prints the pending report, if any, on the calling thread. A report that
  // the host's output fails to print is dropped. Never throws.
  void printPending() noexcept {
    if (pending_.load(std::memory_order_acquire)) {
      takeAndPrint();
    }
  }

  // True while a report waits to be printed.
  bool isPending() const noexcept { return pending_.load(std::memory_order_acquire); }

 private:
  void takeAndPrint() noexcept VEXUTIL_EXCLUDES(mutex_);

  std::atomic<bool> pending_{false};  // Written under mutex_.
  std::string report_ VEXUTIL_GUARDED_BY(mutex_);
  Mutex mutex_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_FAILUREREPORT_H
