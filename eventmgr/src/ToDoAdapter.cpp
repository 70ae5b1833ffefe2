// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/ToDoAdapter.h"

#include <utility>

#include <boost/bind/bind.hpp>
#include <boost/chrono.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include "EventDispatcher.h"
#include "Instance.h"
#include "TypeNames.h"

namespace vexutil {
namespace eventmgr {

// Declared in this order so that, at unload, the mutex is destroyed first and
// a function still pending is then destroyed without being run. Both are
// early statics: built before and destroyed after the manager's owner, whose
// destruction at unload or exit stops a dispatcher that may be handing off
// and releases requesters that pump the slot until then.
boost::function0<void> ToDoAdapter::toDoFunc_ VEXUTIL_EARLY_STATIC;
boost::recursive_mutex ToDoAdapter::toDoMutex_ VEXUTIL_EARLY_STATIC;

namespace {

// The meeting point of one hand-off between the dispatcher thread and the
// thread that runs the work: a two-party barrier that the dispatcher can
// also leave when its manager shuts down and the work will never run.
class HandOff {
 public:
  enum class State { Pending, Running, Done, Withdrawn, Abandoned };

  // Consumer side: claims the work; false when the dispatcher withdrew it.
  bool claim() { return transition(State::Pending, State::Running); }
  // Consumer side: the work has run; the dispatcher may go on.
  void arrive() { set(State::Done); }
  // The hand-off record was destroyed: unrun (replaced, dropped at unload)
  // or run with an exception. Nobody will arrive.
  void recordReleased() {
    if (!transition(State::Pending, State::Abandoned)) {
      transition(State::Running, State::Abandoned);
    }
  }
  // Dispatcher side, at shutdown: takes the work back if nobody claimed it.
  bool withdraw() { return transition(State::Pending, State::Withdrawn); }

  // Dispatcher side: waits up to `timeout` for the work to finish. Returns
  // the state then. An abandoned hand-off is waited on like an unfinished
  // one: nobody will arrive, and the dispatcher must stay blocked, without
  // using the processor, until its manager shuts down.
  State waitFor(boost::chrono::milliseconds timeout) {
    boost::mutex::scoped_lock lock(mutex_);
    const auto deadline = boost::chrono::steady_clock::now() + timeout;
    while (state_ != State::Done && state_ != State::Withdrawn) {
      if (condition_.wait_until(lock, deadline) == boost::cv_status::timeout) {
        break;
      }
    }
    return state_;
  }

 private:
  bool transition(State from, State to) {
    boost::mutex::scoped_lock lock(mutex_);
    if (state_ != from) {
      return false;
    }
    state_ = to;
    condition_.notify_all();
    return true;
  }
  void set(State to) {
    boost::mutex::scoped_lock lock(mutex_);
    state_ = to;
    condition_.notify_all();
  }

  boost::mutex mutex_;
  boost::condition_variable condition_;
  State state_ = State::Pending;  // Guarded by mutex_.
};

// Shared by every copy of one hand-off record; tells the HandOff when the
// last copy is gone.
class HandOffTicket {
 public:
  explicit HandOffTicket(boost::shared_ptr<HandOff> handOff) : handOff_(std::move(handOff)) {}
  ~HandOffTicket() { handOff_->recordReleased(); }
  HandOffTicket(const HandOffTicket&) = delete;
  HandOffTicket& operator=(const HandOffTicket&) = delete;
  HandOff& handOff() const { return *handOff_; }

 private:
  boost::shared_ptr<HandOff> handOff_;
};

// The hand-off record's function: runs the work, then meets the dispatcher.
// Catches nothing: if the work throws, the meeting never happens.
void runAndWait(const boost::function0<void>& work, const boost::shared_ptr<HandOffTicket>& ticket) {
  if (ticket && !ticket->handOff().claim()) {
    return;  // Withdrawn by a dispatcher that is shutting down.
  }
  if (!work.empty()) {
    const detail::WaitedOnScope waitedOn;  // The dispatcher waits for this work.
    work();
  }
  if (ticket) {
    ticket->handOff().arrive();
  }
}

// How often a dispatcher that waits for a hand-off looks at its stop request.
constexpr boost::chrono::milliseconds kStopCheckInterval(50);

}  // namespace

ToDoAdapter::ToDoAdapter() = default;
ToDoAdapter::~ToDoAdapter() = default;

void ToDoAdapter::runOnceOnMainThreadImpl(const boost::function0<void>& work) {
  if (work.empty()) {
    return;
  }
  detail::ensureDefaultManagerCreated();
  EventDispatcher* const dispatcher = EventDispatcher::current();
  if (dispatcher == nullptr) {
    work();
    return;
  }
  const boost::shared_ptr<HandOff> handOff(new HandOff);
  {
    const boost::shared_ptr<HandOffTicket> ticket(new HandOffTicket(handOff));
    boost::function0<void> record = boost::bind(&runAndWait, work, ticket);
    boost::recursive_mutex::scoped_lock lock(toDoMutex_);
    // The slot holds one function: a record still pending is dropped unrun.
    toDoFunc_.clear();
    toDoFunc_.swap(record);
  }
  // No time limit: the dispatcher waits until the work has run. Only a
  // manager that shuts down lets it go, when the work has not been taken or
  // its record is gone, so that shutdown never hangs on a hand-off that
  // nobody will serve.
  for (;;) {
    const HandOff::State state = handOff->waitFor(kStopCheckInterval);
    if (state == HandOff::State::Done) {
      return;
    }
    if (dispatcher->isStopRequested()) {
      if (state == HandOff::State::Abandoned || handOff->withdraw()) {
        return;
      }
    }
  }
}

void ToDoAdapter::invokeOnceOnMainThread() const {
  boost::function0<void> pending;
  {
    boost::recursive_mutex::scoped_lock lock(toDoMutex_);
    pending.swap(toDoFunc_);
  }
  if (!pending.empty()) {
    pending();
  }
}

}  // namespace eventmgr
}  // namespace vexutil
