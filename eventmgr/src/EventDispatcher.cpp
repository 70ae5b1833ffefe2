// SPDX-License-Identifier: MIT
#include "EventDispatcher.h"

#include <boost/bind/bind.hpp>
#include <boost/function.hpp>

#include "DefaultEventMgr.h"

namespace vexutil {
namespace eventmgr {

namespace {

thread_local EventDispatcher* currentDispatcher = nullptr;

// Sets a flag for the lifetime of a scope, also when an exception passes.
class FlagGuard {
 public:
  explicit FlagGuard(std::atomic<bool>& flag) : flag_(flag) { flag_.store(true, std::memory_order_release); }
  ~FlagGuard() { flag_.store(false, std::memory_order_release); }
  FlagGuard(const FlagGuard&) = delete;
  FlagGuard& operator=(const FlagGuard&) = delete;

 private:
  std::atomic<bool>& flag_;
};

// Marks the calling thread as the one that runs `dispatcher`'s loop.
class CurrentDispatcherScope {
 public:
  explicit CurrentDispatcherScope(EventDispatcher* dispatcher) { currentDispatcher = dispatcher; }
  ~CurrentDispatcherScope() { currentDispatcher = nullptr; }
  CurrentDispatcherScope(const CurrentDispatcherScope&) = delete;
  CurrentDispatcherScope& operator=(const CurrentDispatcherScope&) = delete;
};

// The thread's entry point. An exception that ends the loop is discarded
// here so that it never reaches the process; the thread simply ends.
void threadMain(EventDispatcher* dispatcher, const boost::shared_ptr<boost::barrier>& startBarrier,
                DefaultEventMgr* manager) {
  try {
    dispatcher->run(startBarrier, manager);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a failed cycle ends the thread quietly.
  }
}

}  // namespace

EventDispatcher::EventDispatcher() = default;

EventDispatcher::~EventDispatcher() {
  if (thread_ && thread_->joinable()) {
    thread_->detach();
  }
}

EventDispatcher* EventDispatcher::current() noexcept { return currentDispatcher; }

void EventDispatcher::start(DefaultEventMgr* manager) {
  const MutexLock lock(mutex_);
  if (isRunning()) {
    return;
  }
  // Everything that can fail is made before the thread starts: a thread that
  // had started when a later step failed would wait at the barrier for good,
  // on a dispatcher that may be gone.
  boost::shared_ptr<boost::barrier> startBarrier(new boost::barrier(2));
  boost::function0<void> threadFunction = boost::bind(&threadMain, this, startBarrier, manager);
  boost::shared_ptr<boost::thread> started(new boost::thread());
  boost::thread(threadFunction).swap(*started);  // Starts it; throws before, never after.
  started.swap(thread_);
  if (started && started->joinable()) {
    // The previous thread left its loop by an exception and is only
    // finishing its epilogue; joining it here means no thread of this
    // library outlives its manager unnoticed.
    try {
      started->join();
    } catch (...) {  // NOLINT(bugprone-empty-catch): a join that fails leaves it detached.
    }
  }
  startBarrier->wait();
}

void EventDispatcher::stop(DefaultEventMgr* manager) {
  const MutexLock lock(mutex_);
  if (!isRunning()) {
    return;
  }
  setStopRequested(true);
  manager->wakeDispatcher();
  if (!isDispatcherThread() && thread_ && thread_->joinable()) {
    thread_->join();
  }
}

void EventDispatcher::join() {
  const MutexLock lock(mutex_);
  if (thread_ && thread_->joinable() && !isDispatcherThread()) {
    thread_->join();
  }
}

void EventDispatcher::run(const boost::shared_ptr<boost::barrier>& startBarrier, DefaultEventMgr* manager) {
  FlagGuard runningGuard(running_);
  CurrentDispatcherScope currentScope(this);
  startBarrier->wait();
  while (!isStopRequested()) {
    manager->dispatchNext();
  }
}

void EventDispatcher::onActionEvent(const BaseEvent& event) {
  const auto* const action = dynamic_cast<const ActionContainerEvent*>(&event);
  if (action != nullptr) {
    action->execute();
  }
}

}  // namespace eventmgr
}  // namespace vexutil
