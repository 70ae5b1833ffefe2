// SPDX-License-Identifier: MIT
/// \file
/// NotifyDeadlockException: thrown when a request would wait for the
/// dispatcher thread on the dispatcher thread itself.
///
/// ### Overview
/// A subscriber runs on the dispatcher thread. If it made a request that waits
/// for that thread (subscribe, a synchronous publish), it would wait for
/// itself forever. The manager refuses such a request with this exception
/// before anything is queued. It carries no message: it is its own
/// explanation. It derives from Corvane::System::InternalException and
/// overrides none of its writer operations.
///
/// ### Thread safety
/// Immutable; may be copied and read on any thread.
#ifndef VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H
#define VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H

#include "Corvane/System/InternalException.h"
#include "vexutil/Export.h"

namespace vexutil {
namespace eventmgr {

/// The refusal of a request that would wait for the dispatcher thread on that
/// thread; see NotifyDeadlockException.h. Catch it by this name (it is not a
/// std::exception). When it is thrown, the request has had no effect.
class VEXUTIL_API NotifyDeadlockException : public Corvane::System::InternalException {
 public:
  /// An exception with an empty message. Any thread.
  NotifyDeadlockException();
  /// Any thread.
  NotifyDeadlockException(const NotifyDeadlockException& other);
  /// Any thread.
  NotifyDeadlockException& operator=(const NotifyDeadlockException& other);
  /// Any thread.
  ~NotifyDeadlockException() override;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H
