// NotifyDeadlockException: thrown when a request would wait for the
// dispatcher thread on the dispatcher thread itself.
//
// Overview
//   A subscriber runs on the dispatcher thread. If it made a request that
//   waits for that thread (subscribe, a synchronous publish), it would wait
//   for itself forever. The manager refuses such a request with this
//   exception before anything is queued. It carries no message: it is its
//   own explanation. It derives from Corvane::System::InternalException and
//   overrides none of its writer operations.
//
// Thread safety: immutable; may be copied and read on any thread.
#ifndef VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H
#define VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H

#include "Corvane/System/InternalException.h"
#include "vexutil/Export.h"

namespace vexutil {
namespace eventmgr {

class VEXUTIL_API NotifyDeadlockException : public Corvane::System::InternalException {
 public:
  NotifyDeadlockException();
  NotifyDeadlockException(const NotifyDeadlockException& other);
  NotifyDeadlockException& operator=(const NotifyDeadlockException& other);
  ~NotifyDeadlockException() override;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_NOTIFYDEADLOCKEXCEPTION_H
