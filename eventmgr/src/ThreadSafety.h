// SPDX-License-Identifier: MIT
// Lock annotations that Clang's thread-safety analysis checks at compile time
// (-Wthread-safety; scripts/thread-safety.sh builds the library so), and the
// annotated mutex and lock that the parts use. With other compilers the
// annotations are empty and Mutex and MutexLock are std::mutex and
// std::unique_lock under other names, at the same cost.
//
// A member marked VEXUTIL_GUARDED_BY(mutex_) may only be touched with mutex_
// held; a function marked VEXUTIL_REQUIRES(mutex_) may only be called so.
#ifndef VEXUTIL_EVENTMGR_SRC_THREADSAFETY_H
#define VEXUTIL_EVENTMGR_SRC_THREADSAFETY_H

#include <mutex>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#if defined(__clang__)
#define VEXUTIL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEXUTIL_THREAD_ANNOTATION(x)
#endif

#define VEXUTIL_CAPABILITY(name) VEXUTIL_THREAD_ANNOTATION(capability(name))
#define VEXUTIL_SCOPED_CAPABILITY VEXUTIL_THREAD_ANNOTATION(scoped_lockable)
#define VEXUTIL_GUARDED_BY(mutex) VEXUTIL_THREAD_ANNOTATION(guarded_by(mutex))
#define VEXUTIL_REQUIRES(...) VEXUTIL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEXUTIL_ACQUIRE(...) VEXUTIL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEXUTIL_RELEASE(...) VEXUTIL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VEXUTIL_TRY_ACQUIRE(...) VEXUTIL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VEXUTIL_EXCLUDES(...) VEXUTIL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace vexutil {
namespace eventmgr {

// A std::mutex that the analysis knows as a capability.
class VEXUTIL_CAPABILITY("mutex") Mutex {
 public:
  void lock() VEXUTIL_ACQUIRE() { mutex_.lock(); }
  void unlock() VEXUTIL_RELEASE() { mutex_.unlock(); }
  bool try_lock() VEXUTIL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }  // NOLINT(readability-identifier-naming)
  // Tries `tries` times, pausing the core in between, before it sleeps on
  // the mutex: for a mutex held a few dozen nanoseconds at a time, where a
  // sleep and wake-up would cost far more than the wait.
  void lockSpinningFirst(unsigned tries) VEXUTIL_ACQUIRE() {
    for (unsigned tried = 0; tried < tries; ++tried) {
      if (mutex_.try_lock()) {
        return;
      }
#if defined(__x86_64__) || defined(__i386__)
      _mm_pause();
#endif
    }
    mutex_.lock();
  }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a Mutex from construction to destruction, except between unlock()
// and lock(); a condition variable waits on it through forWait().
class VEXUTIL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VEXUTIL_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  // Takes the mutex with Mutex::lockSpinningFirst(`tries`).
  MutexLock(Mutex& mutex, unsigned tries) VEXUTIL_ACQUIRE(mutex) : lock_(mutex.mutex_, std::defer_lock) {
    mutex.lockSpinningFirst(tries);
    lock_ = std::unique_lock<std::mutex>(mutex.mutex_, std::adopt_lock);
  }
  ~MutexLock() VEXUTIL_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() VEXUTIL_RELEASE() { lock_.unlock(); }
  void lock() VEXUTIL_ACQUIRE() { lock_.lock(); }
  // For std::condition_variable::wait(), which lets the mutex go while it
  // waits and holds it again when it returns.
  std::unique_lock<std::mutex>& forWait() noexcept { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_THREADSAFETY_H
