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
// The owner is let go when the library is unloaded or the process exits,
// which destroys the manager (stopping and joining its dispatcher thread).
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
// no-op manager from then on. The manager is destroyed now unless another
// thread holds it for the moment (inside a publish or a poll), in which case
// that thread destroys it when it lets go.
void releaseOwner();

// Tests only: after releaseOwner() has destroyed the manager, makes the next
// instance() create a new default manager, as in a freshly loaded library.
void rearmInstanceForTesting();

}  // namespace detail
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_INSTANCE_H
