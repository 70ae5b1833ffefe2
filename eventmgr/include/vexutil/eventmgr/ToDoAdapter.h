// SPDX-License-Identifier: MIT
/// \file
/// ToDoAdapter: hands a function from the dispatcher thread to the main thread.
///
/// ### Overview
/// A subscriber (which runs on the dispatcher thread) sometimes has to do work
/// on the host's main thread, for example touch the user interface.
/// runOnceOnMainThreadImpl(work) called on the dispatcher thread stores the
/// work in one process-wide slot and blocks until another thread has taken it
/// with invokeOnceOnMainThread() and run it. Called on any other thread it
/// simply runs the work there and then.
///
/// Inside the library the slot is pumped by every thread that waits for the
/// dispatcher (a synchronous publish or a subscribe), once per millisecond, so
/// work handed off while the main thread waits for the dispatcher runs on the
/// main thread and the two do not deadlock. A host whose subscribers hand work
/// off while its main thread is NOT waiting for the dispatcher must call
/// invokeOnceOnMainThread() from its main loop.
///
/// ### Guarantees
/// * The slot holds one function, never a queue: a second hand-off before the
///   first was taken drops the first unrun, and its dispatcher never wakes.
///   In normal operation this cannot happen, because the dispatcher thread
///   blocks until its hand-off has run.
/// * Of several threads pumping at once, exactly one takes a pending function.
/// * The function runs outside every lock of this class; it may itself hand
///   off or pump. It must not make a request that waits for the dispatcher
///   (subscribe, unSubscribe, a synchronous publish): the dispatcher is
///   blocked in the hand-off until the function returns, so the request
///   never finishes (only the deadlock report after a minute tells of it).
///   An asynchronous publish is fine.
/// * If the function throws on the pumping thread, the exception propagates
///   out of invokeOnceOnMainThread() there, and the dispatcher thread stays
///   blocked until the manager shuts down: no hand-off is ever retried or
///   timed out.
///
/// ### Thread safety
/// All members may be called from any thread. toDoMutex_ guards toDoFunc_; it
/// is held only while the slot is cleared, assigned or swapped.
#ifndef VEXUTIL_EVENTMGR_TODOADAPTER_H
#define VEXUTIL_EVENTMGR_TODOADAPTER_H

#include <boost/function.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "vexutil/Export.h"

namespace vexutil {
namespace eventmgr {

/// The main-thread hand-off; see ToDoAdapter.h. The default event manager is
/// a ToDoAdapter: a host pumps the hand-off with
/// `dynamic_cast<ToDoAdapter*>(EventMgr::instance())->invokeOnceOnMainThread()`.
/// So is the no-op manager that instance() returns after shutdown, so the
/// cast never yields null and the pump stays harmless then. Every instance
/// works on the same process-wide slot.
class VEXUTIL_API ToDoAdapter {
 public:
  /// Any thread.
  ToDoAdapter();
  /// Any thread; leaves the process-wide slot alone.
  virtual ~ToDoAdapter();

  /// Runs `work` once on the main thread (see the overview) and returns after
  /// it has run. An empty function returns at once without touching or
  /// creating the event manager. Off the dispatcher thread the work runs on
  /// the calling thread and its exceptions reach the caller unchanged.
  /// \pre On the dispatcher thread: some thread pumps the slot, that is, the
  ///      host's main loop calls invokeOnceOnMainThread(), or a thread waits
  ///      for the dispatcher. Until then every delivery waits. `work` should
  ///      not throw (see the overview).
  /// \post On the dispatcher thread it returns once `work` has run, or
  ///       without running it when the manager shuts down first. Creates the
  ///       event manager if it does not exist yet.
  /// \par Thread
  /// Any thread. Meant for the dispatcher thread, that is, for subscribers;
  /// the work then runs on whichever thread pumps first, usually the main
  /// thread but possibly another thread that waits for the dispatcher.
  static void runOnceOnMainThreadImpl(const boost::function0<void>& work);

  /// If a function is pending, takes it out of the slot and runs it on the
  /// calling thread; otherwise does nothing. Allocates nothing when idle.
  /// \post Whatever the function throws passes out; the slot is empty then.
  /// \par Thread
  /// Any thread; meant for the host's main loop. Cheap enough to call on
  /// every pass of the loop.
  void invokeOnceOnMainThread() const;

  /// The pending function (empty when none); guarded by toDoMutex_. Internal:
  /// hosts use runOnceOnMainThreadImpl() and invokeOnceOnMainThread().
  static boost::function0<void> toDoFunc_;
  /// Guards toDoFunc_. Internal, as toDoFunc_.
  static boost::recursive_mutex toDoMutex_;

 protected:
  ToDoAdapter(const ToDoAdapter&) = default;
  ToDoAdapter& operator=(const ToDoAdapter&) = default;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_TODOADAPTER_H
