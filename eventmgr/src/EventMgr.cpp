// EventMgr and the process-wide instance mechanism.
#include "vexutil/eventmgr/EventMgr.h"

#include <atomic>
#include <new>

#include <boost/bind/bind.hpp>
#include <boost/thread/thread.hpp>

#include "DefaultEventMgr.h"
#include "DummyEventMgr.h"
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

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

Immortal<boost::mutex> instanceMutexStorage VEXUTIL_EARLY_STATIC;
Immortal<DummyEventMgr> dummyStorage VEXUTIL_EARLY_STATIC;

EventMgr* creatingInstance();
EventMgr* dummyInstance() { return &dummyStorage.get(); }

using InstanceFunction = EventMgr* (*)();

// The function that instance() calls: creating until shutdown, then dummy.
std::atomic<InstanceFunction> instanceFunction{&creatingInstance};
// The default manager once it exists; lets instance() skip the mutex.
std::atomic<EventMgr*> currentManager{nullptr};
// Set when the default manager has been destroyed; guarded by the mutex.
bool shutDown = false;

// Destroys the manager on a thread of its own when its last owner lets go on
// the dispatcher thread (a subscriber that releases it): the destructor joins
// the dispatcher thread, which cannot join itself.
struct ManagerDeleter {
  void operator()(DefaultEventMgr* manager) const {
    if (manager->isDispatcherThread()) {
      boost::thread reaper(boost::bind(&ManagerDeleter::destroy, manager));
      reaper.detach();
      return;
    }
    destroy(manager);
  }
  static void destroy(DefaultEventMgr* manager) { delete manager; }
};

// Owns the default manager; letting it go at unload or exit destroys the
// manager before any early static (the type names) is destroyed.
struct Owner {
  boost::shared_ptr<DefaultEventMgr> manager;  // Guarded by the instance mutex.
  Owner() = default;
  ~Owner() { detail::releaseOwner(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
};
Owner owner;

EventMgr* creatingInstance() {
  EventMgr* current = currentManager.load(std::memory_order_acquire);
  if (current != nullptr) {
    return current;
  }
  boost::mutex::scoped_lock lock(instanceMutexStorage.get());
  if (shutDown) {
    return dummyInstance();
  }
  if (!owner.manager) {
    boost::shared_ptr<DefaultEventMgr> created(new DefaultEventMgr, ManagerDeleter());
    created->setWeakSelf(created);
    owner.manager = created;
    currentManager.store(created.get(), std::memory_order_release);
  }
  return owner.manager.get();
}

}  // namespace

namespace detail {

boost::mutex& instanceMutex() { return instanceMutexStorage.get(); }

EventMgr* dummyManager() { return dummyInstance(); }

void switchInstanceToDummy() {
  shutDown = true;
  instanceFunction.store(&dummyInstance, std::memory_order_release);
  currentManager.store(dummyInstance(), std::memory_order_release);
}

void ensureDefaultManagerCreated() {
  if (instanceFunction.load(std::memory_order_acquire) == &creatingInstance) {
    creatingInstance();
  }
}

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
    // one being destroyed.
    if (released) {
      detail::switchInstanceToDummy();
    }
  }
  // The destructor takes the instance mutex itself.
  released.reset();
}

void rearmInstanceForTesting() {
  boost::mutex::scoped_lock lock(instanceMutexStorage.get());
  shutDown = false;
  currentManager.store(nullptr, std::memory_order_release);
  instanceFunction.store(&creatingInstance, std::memory_order_release);
}

}  // namespace detail

EventMgr::EventMgr() = default;
EventMgr::~EventMgr() = default;

EventMgr* EventMgr::instance() { return instanceFunction.load(std::memory_order_acquire)(); }

}  // namespace eventmgr
}  // namespace vexutil
