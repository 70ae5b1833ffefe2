#include "ActionContainerEvent.h"

#include <boost/thread/exceptions.hpp>

#include "TypeNames.h"

namespace vexutil {
namespace eventmgr {

namespace {
const std::string kActionContainerEventTypeName VEXUTIL_EARLY_STATIC("ActionContainerEvent");
}  // namespace

const std::string& ActionContainerEvent::typeName() noexcept { return kActionContainerEventTypeName; }

ActionContainerEvent::ActionContainerEvent(const boost::function0<void>& actionToRun)
    : BaseEvent(std::vector<std::string>{kActionContainerEventTypeName, BaseEvent::typeName()}),
      action(actionToRun),
      syncData(new SyncData) {}

ActionContainerEvent::ActionContainerEvent(const ActionContainerEvent& other)
    : BaseEvent(std::vector<std::string>{kActionContainerEventTypeName, BaseEvent::typeName()}),
      action(other.action),
      syncData(other.syncData) {}

ActionContainerEvent::~ActionContainerEvent() {
  syncData.reset();
  action.clear();
}

ActionContainerEvent* ActionContainerEvent::clone() const { return new ActionContainerEvent(*this); }

void ActionContainerEvent::execute() const {
  action();
  markDone();
}

void ActionContainerEvent::markDone() const {
  boost::mutex::scoped_lock lock(syncData->mutex);
  syncData->done = true;
  syncData->cond.notify_all();
}

bool ActionContainerEvent::waitDone(boost::mutex::scoped_lock& lock, const Clock::time_point& deadline) const {
  if (!lock.owns_lock() || lock.mutex() != &syncData->mutex) {
    // A finished event needs no wait whatever the lock; otherwise waiting
    // without holding the mutex is the caller's programming error. `done` is
    // only ever read under its mutex.
    bool done = false;
    {
      boost::mutex::scoped_lock probe(syncData->mutex);
      done = syncData->done;
    }
    if (done) {
      return true;
    }
    boost::throw_exception(boost::lock_error());
  }
  if (syncData->done) {
    return true;
  }
  syncData->cond.wait_until(lock, deadline);
  return syncData->done;
}

boost::mutex& ActionContainerEvent::getMutex() const { return syncData->mutex; }

}  // namespace eventmgr
}  // namespace vexutil
