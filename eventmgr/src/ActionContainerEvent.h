// SPDX-License-Identifier: MIT
// ActionContainerEvent: the event that carries work to the dispatcher thread.
//
// It holds a function to run there and a completion record (SyncData) on
// which the requesting thread waits. The dispatcher's own subscription to
// "ActionContainerEvent" runs the function when the event is delivered and
// then marks it done. Copies and clones share one SyncData, so whichever copy
// is marked done, every holder sees it.
//
// Completion protocol
//   The requester locks getMutex() before queueing the event and keeps it
//   locked except inside waitDone(); markDone() sets the flag under the same
//   mutex, so the flag can never fall between the requester's test of it and
//   its wait: no wake-up is lost. markDone() notifies after it has let the
//   mutex go, so that the woken requester finds the mutex free.
//
// Thread safety
//   `done` is read and written only under SyncData::mutex. The action runs on
//   the dispatcher thread only; the event is otherwise immutable.
#ifndef VEXUTIL_EVENTMGR_SRC_ACTIONCONTAINEREVENT_H
#define VEXUTIL_EVENTMGR_SRC_ACTIONCONTAINEREVENT_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

class ActionContainerEvent : public BaseEvent {
 public:
  using Clock = std::chrono::steady_clock;
  // The requester's hold on SyncData::mutex.
  using Lock = std::unique_lock<std::mutex>;

  struct SyncData {
    // A failure of the action that it hands to the requester instead of
    // throwing: written by the action before it is marked done, read by the
    // requester once done (ordered by `mutex`).
    std::exception_ptr failure;
    std::condition_variable cond;  // Notified when `done` becomes true.
    std::mutex mutex;              // Guards `done`.
    bool done = false;             // Set once, never cleared.
  };

  // Copies `action` (which may be empty) and creates a new SyncData.
  explicit ActionContainerEvent(const boost::function0<void>& action);
  // Takes `action` over (it is left empty) and creates a new SyncData.
  explicit ActionContainerEvent(boost::function0<void>&& action);
  // Copies the action and shares the SyncData.
  ActionContainerEvent(const ActionContainerEvent& other);
  ActionContainerEvent& operator=(const ActionContainerEvent&) = delete;
  ~ActionContainerEvent() override;

  ActionContainerEvent* clone() const override;

  // Runs the action, then markDone(). Nothing is caught: if the action throws
  // (an empty one throws boost::bad_function_call), the event is not marked.
  void execute() const;

  // Sets `done` and wakes every waiter; harmless when already done. Tries
  // for the mutex for a few microseconds before it sleeps on it.
  void markDone() const;

  // True at once when done. Otherwise, for up to `lookFirst` (never past
  // `deadline`), yields with the mutex released and looks again; then one
  // timed wait on the condition until `deadline` (no loop), then the flag.
  // `lock` must hold getMutex(), and holds it again on return; a lock that
  // does not own its mutex throws boost::lock_error. The wait is not a
  // boost::thread interruption point.
  bool waitDone(Lock& lock, const Clock::time_point& deadline,
                Clock::duration lookFirst = Clock::duration::zero()) const;

  // The SyncData mutex, for the requester's lock.
  std::mutex& getMutex() const;

  // "ActionContainerEvent".
  static const std::string& typeName() noexcept;

  boost::function0<void> action;
  boost::shared_ptr<SyncData> syncData;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_ACTIONCONTAINEREVENT_H
