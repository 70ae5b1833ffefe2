// SPDX-License-Identifier: MIT
// EventDispatcher: owns the worker thread of a DefaultEventMgr, the
// dispatcher thread.
//
// The thread calls the manager's dispatchNext() until a stop is requested.
// start() returns only when the new thread has marked itself as this
// dispatcher's (current()) and is running, so right after start() the thread
// can be recognised. An exception out of dispatchNext() ends the thread
// quietly; the manager's next ensureDispatcherRunning() starts a new one.
// stop() is final: the stop request is never withdrawn.
//
// Thread safety
//   start() and stop() are serialised by mutex_ and may be called from any
//   thread; stop() joins while holding it, and the dispatcher thread never
//   takes it. The flags are atomics: they are read without a lock by the loop
//   and by ensureDispatcherRunning(). Which dispatcher, if any, runs on a
//   thread is that thread's own (thread-local) record.
//   mutex_ is the start/stop mutex of the lock order in DefaultEventMgr.h.
#ifndef VEXUTIL_EVENTMGR_SRC_EVENTDISPATCHER_H
#define VEXUTIL_EVENTMGR_SRC_EVENTDISPATCHER_H

#include <atomic>

#include <boost/shared_ptr.hpp>
#include <boost/thread/barrier.hpp>
#include <boost/thread/thread.hpp>

#include "ActionContainerEvent.h"
#include "ThreadSafety.h"

namespace vexutil {
namespace eventmgr {

class DefaultEventMgr;

class EventDispatcher {
 public:
  EventDispatcher();
  // Releases the thread object without joining it (it is detached).
  ~EventDispatcher();
  EventDispatcher(const EventDispatcher&) = delete;
  EventDispatcher& operator=(const EventDispatcher&) = delete;

  // Starts the thread unless it is running; returns once it runs.
  void start(DefaultEventMgr* manager) VEXUTIL_EXCLUDES(mutex_);

  // Requests the stop, wakes the loop and, unless called on the dispatcher
  // thread itself, joins the thread. Does nothing when the thread does not
  // run (the stop request then stays unset).
  void stop(DefaultEventMgr* manager) VEXUTIL_EXCLUDES(mutex_);

  // Joins a thread that was stopped from inside its own delivery, unless
  // called on it. Does nothing when there is no such thread.
  void join() VEXUTIL_EXCLUDES(mutex_);

  // The thread function.
  void run(const boost::shared_ptr<boost::barrier>& startBarrier, DefaultEventMgr* manager);

  // The dispatcher's subscription to "ActionContainerEvent": runs the action.
  // An event of another class that merely carries the name (a host event
  // may) is ignored: only the manager's own requests are run.
  void onActionEvent(const BaseEvent& event);

  bool isRunning() const noexcept { return running_.load(std::memory_order_acquire); }
  bool isStopRequested() const noexcept { return stopRequested_.load(std::memory_order_acquire); }
  void setStopRequested(bool value) noexcept { stopRequested_.store(value, std::memory_order_release); }
  // The stop request itself, for a wait that must not begin once it is set.
  const std::atomic<bool>& stopFlag() const noexcept { return stopRequested_; }

  // The dispatcher whose loop runs on the calling thread, or null.
  static EventDispatcher* current() noexcept;

  // True when the calling thread is this dispatcher's thread.
  bool isDispatcherThread() const noexcept { return current() == this; }

 private:
  boost::shared_ptr<boost::thread> thread_ VEXUTIL_GUARDED_BY(mutex_);
  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> running_{false};
  Mutex mutex_;  // Serialises start(), stop() and join().
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_EVENTDISPATCHER_H
