// SPDX-License-Identifier: MIT
// EventMgr and the process-wide instance mechanism.
#include "vexutil/eventmgr/EventMgr.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>


#include "DefaultEventMgr.h"
#include "DummyEventMgr.h"
#include "EventDispatcher.h"
#include "Instance.h"
#include "TypeNames.h"

namespace vexutil {
namespace eventmgr {

namespace {

// Static storage for an object that is built when the library is loaded and
// never destroyed, so that it stays usable by static destructors of other
// modules at exit without being a heap allocation that outlives an unload.
template <typename T>
class Immortal {
 public:
  Immortal() { new (static_cast<void*>(storage_)) T(); }  // NOLINT(cppcoreguidelines-pro-type-member-init)
  ~Immortal() = default;
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;
  T& get() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  // In the child of a fork only: a fresh object over one that a thread of
  // the parent may have left in use.
  void remake() noexcept { new (static_cast<void*>(storage_)) T(); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

Immortal<boost::mutex> instanceMutexStorage VEXUTIL_EARLY_STATIC;
Immortal<DummyEventMgr> dummyStorage VEXUTIL_EARLY_STATIC;

EventMgr* dummyInstance() { return &dummyStorage.get(); }

// The shutdown window (see Instance.h): open while the flag is set; closing
// it notifies the condition under the mutex.
std::atomic<bool> shutdownWindowOpen{false};
Immortal<std::mutex> windowMutexStorage VEXUTIL_EARLY_STATIC;
Immortal<std::condition_variable> windowClosedStorage VEXUTIL_EARLY_STATIC;
// How many WaitedOnScope objects live on this thread.
thread_local unsigned waitedOnDepth = 0;

// Set in the child of a fork of a process that had made the default manager:
// that manager is left alone for good.
std::atomic<bool> managerLeftInParent{false};

// In a forked child, the parent's manager, never shut down (see Owner).
Immortal<boost::shared_ptr<DefaultEventMgr>> leftInParentStorage VEXUTIL_EARLY_STATIC;

// What instance() returns: null until the default manager is created (the
// next call creates it), then that manager, and the no-op manager from the
// start of its shutdown on, for the rest of the process. Written under the
// instance mutex; read without it.
std::atomic<EventMgr*> currentManager{nullptr};

// The head of the retired list (DefaultEventMgr::nextRetired_ links the
// rest). Guarded by the instance mutex; a plain pointer, so that it is usable
// at any time during exit.
DefaultEventMgr* retiredManagers = nullptr;

// The deleter of the owner's shares: shuts the manager down and retires it,
// on whichever thread lets the last share go; on the dispatcher thread (a
// subscriber let it go) once the delivery in progress has ended. `manager` is
// set once the manager exists: the shares' control block is made first, so
// that creating it cannot fail with a manager (and its thread) already
// running.
struct RetireManager {
  DefaultEventMgr* manager = nullptr;
  void operator()(const void* /*unused*/) const noexcept {
    if (manager == nullptr) {
      return;
    }
    if (manager->isDispatcherThread()) {
      manager->shutDownAfterDelivery();
      return;
    }
    manager->shutDown();
    detail::retire(manager);
  }
};

// Owns the default manager; letting it go at unload or exit shuts the manager
// down before any early static (the type names) is destroyed, and frees it.
struct Owner {
  boost::shared_ptr<DefaultEventMgr> manager;  // Guarded by the instance mutex.
  Owner() = default;
  ~Owner() {
    if (managerLeftInParent.load(std::memory_order_acquire)) {
      // A forked child: shutting the parent's manager down would join a
      // thread that does not exist here. Its share is kept where the leak
      // checker sees it as reachable.
      leftInParentStorage.get().swap(manager);
      return;
    }
    detail::releaseOwner();
    detail::destroyRetiredManagers();
  }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
};
Owner owner;

void afterForkInChild() noexcept {
  // Only this thread exists now; the instance mutex may have been held by
  // another thread of the parent and is made afresh.
  instanceMutexStorage.remake();
  shutdownWindowOpen.store(false, std::memory_order_release);
  if (owner.manager || currentManager.load(std::memory_order_acquire) != nullptr) {
    managerLeftInParent.store(true, std::memory_order_release);
    currentManager.store(dummyInstance(), std::memory_order_release);
  }
}

// Registered when the library is loaded; unregistered by the C library when
// it is unloaded.
const int forkHandlerRegistered = pthread_atfork(nullptr, nullptr, &afterForkInChild);

EventMgr* creatingInstance() {
  boost::mutex::scoped_lock lock(instanceMutexStorage.get());
  if (EventMgr* const current = currentManager.load(std::memory_order_acquire)) {
    return current;  // Made by another thread meanwhile, or shut down.
  }
  // Everything that can fail comes before the manager is published; a
  // failure leaves the instance mechanism as it was, for the next call.
  boost::shared_ptr<void> shares(static_cast<void*>(nullptr), RetireManager());
  auto* const deleter = boost::get_deleter<RetireManager>(shares);
  auto* const created = new DefaultEventMgr;
  if (deleter != nullptr) {  // Always: `shares` was made with this deleter.
    deleter->manager = created;
  }
  owner.manager = boost::shared_ptr<DefaultEventMgr>(shares, created);
  created->setWeakSelf(owner.manager);
  currentManager.store(created, std::memory_order_release);
  return created;
}

}  // namespace

namespace detail {

boost::mutex& instanceMutex() { return instanceMutexStorage.get(); }

void switchInstanceToDummy() {
  EventMgr* const current = currentManager.load(std::memory_order_acquire);
  if (current != nullptr && current != dummyInstance()) {
    // The default manager's shutdown begins: the window opens once.
    shutdownWindowOpen.store(true, std::memory_order_release);
  }
  currentManager.store(dummyInstance(), std::memory_order_release);
}

void ensureDefaultManagerCreated() {
  if (currentManager.load(std::memory_order_acquire) == nullptr) {
    creatingInstance();
  }
}

void awaitShutdownCompleted() noexcept {
  if (!shutdownWindowOpen.load(std::memory_order_acquire) || waitedOnDepth != 0 ||
      EventDispatcher::current() != nullptr) {
    return;
  }
  try {
    std::unique_lock<std::mutex> lock(windowMutexStorage.get());
    windowClosedStorage.get().wait(lock, [] { return !shutdownWindowOpen.load(std::memory_order_acquire); });
  } catch (...) {  // NOLINT(bugprone-empty-catch): a mutex that cannot be taken leaves nothing to wait on.
  }
}

void closeShutdownWindow() noexcept {
  if (!shutdownWindowOpen.load(std::memory_order_acquire)) {
    return;
  }
  try {
    const std::lock_guard<std::mutex> lock(windowMutexStorage.get());
    shutdownWindowOpen.store(false, std::memory_order_release);
  } catch (...) {
    shutdownWindowOpen.store(false, std::memory_order_release);
  }
  windowClosedStorage.get().notify_all();
}

WaitedOnScope::WaitedOnScope() noexcept { ++waitedOnDepth; }
WaitedOnScope::~WaitedOnScope() { --waitedOnDepth; }

bool isDefaultManagerCreated() {
  EventMgr* const current = currentManager.load(std::memory_order_acquire);
  return current != nullptr && current != dummyInstance();
}

void releaseOwner() {
  boost::shared_ptr<DefaultEventMgr> released;
  {
    boost::mutex::scoped_lock lock(instanceMutexStorage.get());
    released.swap(owner.manager);
    // instance() stops handing the manager out before its last reference can
    // go: a requester that a shutdown releases (it sees the manager expire)
    // and that calls instance() again must get the no-op manager, never the
    // one being shut down.
    if (released) {
      detail::switchInstanceToDummy();
    }
  }
  // The shutdown takes the instance mutex itself.
  released.reset();
}

void retire(DefaultEventMgr* manager) noexcept {
  boost::mutex::scoped_lock lock(instanceMutexStorage.get());
  manager->nextRetired_ = retiredManagers;
  retiredManagers = manager;
}

void destroyRetiredManagers() noexcept {
  DefaultEventMgr* retired = nullptr;
  {
    boost::mutex::scoped_lock lock(instanceMutexStorage.get());
    std::swap(retired, retiredManagers);
  }
  while (retired != nullptr) {
    DefaultEventMgr* const next = retired->nextRetired_;
    delete retired;
    retired = next;
  }
}

}  // namespace detail

EventMgr::EventMgr() = default;
EventMgr::~EventMgr() = default;

EventMgr* EventMgr::instance() {
  EventMgr* const current = currentManager.load(std::memory_order_acquire);
  return current != nullptr ? current : creatingInstance();
}

}  // namespace eventmgr
}  // namespace vexutil
