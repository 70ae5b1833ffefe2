// The process-wide instance mechanism behind EventMgr::instance().
//
// State (all created when the library is loaded, none ever freed while the
// library is loaded):
//   * the instance mutex, which serialises creation of the default manager
//     and is held across its whole destructor;
//   * the owner: the shared pointer that keeps the default manager alive;
//   * the no-op manager handed out after shutdown;
//   * the current instance function: "create or return the default manager"
//     until the default manager is destroyed, "return the no-op manager"
//     from then on, for the rest of the process.
//
// The owner is let go when the library is unloaded or the process exits.
// Its last share shuts the manager down (stopping and joining its dispatcher
// thread) and retires it: the memory stays allocated, and every call on it a
// no-op, until the library's static data is torn down, so that a thread that
// took the pointer from instance() just before the shutdown never calls into
// freed memory.
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

// The no-op manager.
EventMgr* dummyManager();

// Called by the default manager's destructor, under the instance mutex:
// instance() returns the no-op manager from now on.
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
// unload or exit, and in tests between managers.
void destroyRetiredManagers() noexcept;

// Tests only: after releaseOwner(), waits until the manager has been shut
// down, frees it and makes the next instance() create a new default manager,
// as in a freshly loaded library. No thread may still use the old manager.
void rearmInstanceForTesting();

}  // namespace detail
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_INSTANCE_H
