// SPDX-License-Identifier: MIT
// The process-wide instance mechanism behind EventMgr::instance().
//
// State (all created when the library is loaded, none ever freed while the
// library is loaded):
//   * the instance mutex, which serialises creation of the default manager
//     and is held across its whole destructor;
//   * the owner: the shared pointer that keeps the default manager alive;
//   * the no-op manager handed out after shutdown;
//   * the current manager: none until the first instance() creates the
//     default manager, then that manager, and the no-op manager from the
//     start of its shutdown on, for the rest of the process;
//   * the retired list and the shutdown window (below).
//
// The owner is let go when the library is unloaded or the process exits.
// Its last share shuts the manager down (stopping and joining its dispatcher
// thread) and retires it: the memory stays allocated, and every call on it a
// no-op, until the library's static data is torn down, so that a thread that
// took the pointer from instance() just before the shutdown never calls into
// freed memory.
//
// fork(): the default manager belongs to the process that made it. In the
// child of a process that had made one, instance() is the no-op manager for
// good (the child has no dispatcher thread, and locks that the parent's
// other threads held stay held), and exit leaves the parent's manager alone.
// A child of a process that never made a manager makes its own on first use.
#ifndef VEXUTIL_EVENTMGR_SRC_INSTANCE_H
#define VEXUTIL_EVENTMGR_SRC_INSTANCE_H

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace vexutil {
namespace eventmgr {

class DefaultEventMgr;
class EventMgr;

namespace detail {

// The instance mutex. First in the lock order.
boost::mutex& instanceMutex();

// Called under the instance mutex when the default manager is let go or
// shut down: instance() returns the no-op manager from now on, and the
// shutdown window opens if a default manager lives.
void switchInstanceToDummy();

// Creates the default manager if instance() would still create one; does
// nothing after shutdown.
void ensureDefaultManagerCreated();

// True while the default manager exists (created and not yet shut down).
bool isDefaultManagerCreated();

// Lets the owner go, as unloading the library does. instance() returns the
// no-op manager from then on. The manager is shut down now unless another
// thread holds it for the moment (inside a publish or a poll), in which case
// that thread shuts it down when it lets go.
void releaseOwner();

// Adds a manager that has been shut down to the retired list. Never throws.
void retire(DefaultEventMgr* manager) noexcept;

// Frees every retired manager. Only when no thread may still call one: at
// unload or exit.
void destroyRetiredManagers() noexcept;

// The shutdown window: from the moment instance() stops handing out the
// default manager until that manager's shutdown has completed (its
// dispatcher joined, its subscriptions cleared). A delivery may still be in
// progress during the window, so an unSubscribe that returns then must wait
// for the window to close first: the caller may destroy its object as soon
// as the call returns, and a mailer is freed as soon as its withdrawal does.

// Waits until no shutdown window is open. Returns at once on a thread that
// the shutdown itself waits for: a dispatcher thread, a thread running a
// hand-off for one, or the thread that runs the shutdown. Never throws.
void awaitShutdownCompleted() noexcept;

// Called at the end of the default manager's shutdown.
void closeShutdownWindow() noexcept;

// For its lifetime, marks the calling thread as one that a shutdown waits
// for (see awaitShutdownCompleted()). Nests.
class WaitedOnScope {
 public:
  WaitedOnScope() noexcept;
  ~WaitedOnScope();
  WaitedOnScope(const WaitedOnScope&) = delete;
  WaitedOnScope& operator=(const WaitedOnScope&) = delete;
};

}  // namespace detail
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_INSTANCE_H
