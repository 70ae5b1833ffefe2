// SPDX-License-Identifier: MIT
#include "ActionContainerEvent.h"

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>

#include "TypeNames.h"
#include "YieldWatch.h"

namespace vexutil {
namespace eventmgr {

namespace {

const std::string kActionContainerEventTypeName VEXUTIL_EARLY_STATIC("ActionContainerEvent");

// The type list of every action event, built once: every synchronous request
// makes an action event, and copying a finished list costs one allocation
// less than building it from the two names. Spelled out rather than taken
// from the name constants, whose construction in other files may come later.
const std::vector<std::string> kActionContainerEventTypeList VEXUTIL_EARLY_STATIC{"ActionContainerEvent", "BaseEvent"};

// How long markDone() keeps trying for the mutex before it sleeps on it.
constexpr auto kLockSpin = std::chrono::microseconds(20);

// The requester holds the mutex between its polls and lets it go only inside
// its timed wait. A dispatcher that finishes the action before the requester
// has reached that wait would otherwise sleep on the mutex and cost a second
// wake-up per round trip; the requester gets there within microseconds.
void lockAfterShortSpin(std::mutex& mutex) {
  if (mutex.try_lock()) {
    return;
  }
  const ActionContainerEvent::Clock::time_point spinEnd = ActionContainerEvent::Clock::now() + kLockSpin;
  do {
    // Gives way rather than pauses: the requester that holds the mutex may
    // be waiting for this very core.
    std::this_thread::yield();
    if (mutex.try_lock()) {
      return;
    }
  } while (ActionContainerEvent::Clock::now() < spinEnd);
  mutex.lock();
}

}  // namespace

const std::string& ActionContainerEvent::typeName() noexcept { return kActionContainerEventTypeName; }

ActionContainerEvent::ActionContainerEvent(const boost::function0<void>& actionToRun)
    : BaseEvent(kActionContainerEventTypeList), action(actionToRun), syncData(boost::make_shared<SyncData>()) {}

ActionContainerEvent::ActionContainerEvent(boost::function0<void>&& actionToRun)
    : BaseEvent(kActionContainerEventTypeList),
      action(std::move(actionToRun)),
      syncData(boost::make_shared<SyncData>()) {}

ActionContainerEvent::ActionContainerEvent(const ActionContainerEvent& other)
    : BaseEvent(kActionContainerEventTypeList), action(other.action), syncData(other.syncData) {}

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
  SyncData& sync = *syncData;
  lockAfterShortSpin(sync.mutex);
  sync.done = true;
  sync.mutex.unlock();
  // Notified after the unlock, so that the woken requester does not run into
  // the mutex still held here and sleep once more. Nothing is lost: a waiter
  // tests `done` under the mutex and is registered with the condition before
  // its wait lets the mutex go, so it has either seen the flag or gets this
  // notification. The event that is being marked keeps `sync` alive.
  sync.cond.notify_all();
}

bool ActionContainerEvent::waitDone(Lock& lock, const Clock::time_point& deadline, Clock::duration lookFirst) const {
  if (!lock.owns_lock() || lock.mutex() != &syncData->mutex) {
    // A finished event needs no wait whatever the lock; otherwise waiting
    // without holding the mutex is the caller's programming error. `done` is
    // only ever read under its mutex.
    bool done = false;
    {
      const std::lock_guard<std::mutex> probe(syncData->mutex);
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
  YieldWatch& yields = YieldWatch::processWide();
  Clock::time_point now = lookFirst > Clock::duration::zero() ? Clock::now() : Clock::time_point();
  if (lookFirst > Clock::duration::zero() && yields.pays(now)) {
    // Most actions take a few microseconds. A timed sleep costs more than
    // that here: arming and cancelling its timer, and the wake-up. So first
    // give way a few times with the mutex released and look again; on a
    // machine where requester and dispatcher share a core, each yield hands
    // the core to the dispatcher. While yields lose the core to other work
    // (YieldWatch), the requester blocks at once. `done` is still only read
    // under the mutex.
    const Clock::time_point lookEnd = (std::min)(deadline, now + lookFirst);
    do {
      lock.unlock();
      now = yields.yieldOnce(now);
      lock.lock();
      if (syncData->done) {
        return true;
      }
    } while (now < lookEnd);
  }
  // One timed wait on the requester's own mutex (the standard condition
  // has no internal mutex of its own that a woken waiter would sleep on a
  // second time). A timeout, a wake-up and a spurious return all end in the
  // test of the flag.
  syncData->cond.wait_until(lock, deadline);
  return syncData->done;
}

std::mutex& ActionContainerEvent::getMutex() const { return syncData->mutex; }

}  // namespace eventmgr
}  // namespace vexutil
