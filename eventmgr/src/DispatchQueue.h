// DispatchQueue: the queue between the threads that publish and the one
// dispatcher thread that takes and delivers.
//
// Entries are pushed at the back (events, synchronous requests) or at the
// front (requests that must overtake what is queued) by any thread, and
// taken from the front by one consumer thread. A consumer that finds the
// queue empty waits on the queue's condition, at most kIdleWait at a time.
// Before it waits it may spin for a short while, as its IdleSpin policy
// says: the product spins adaptively, so that a dense stream or a run of
// synchronous round trips costs no sleep and wake-up per event, while a
// paced stream soon stops the spin.
//
// A consumer that finds entries waiting takes up to kTakeAhead of them at
// one visit of the mutex and hands them out one by one, so that a backlog
// costs the publishers and the consumer one meeting on the mutex per batch
// instead of per entry. Entries taken ahead are still queued: size() and
// takeAll() count them, and a push at the front overtakes them as it
// overtakes everything else.
//
// The consumer hands each delivered entry back, and the event copies that
// the queue owned are destroyed a batch at a time: before the consumer's
// next visit of the mutex, so at the latest before it waits, and never under
// the mutex.
//
// Thread safety
//   push(), wake(), size() and takeAll() may be called from any thread.
//   take() is called by one consumer thread at a time; its spin state and
//   the entries it took ahead are the consumer's own, except that
//   takeAll() claims the entries not yet handed out through one atomic
//   index. No subscriber code runs in here; the destructors of delivered
//   event copies run in take() and destroyHandedBack(), on the consumer
//   thread, with no lock held.
#ifndef VEXUTIL_EVENTMGR_SRC_DISPATCHQUEUE_H
#define VEXUTIL_EVENTMGR_SRC_DISPATCHQUEUE_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <boost/shared_ptr.hpp>

#include "ThreadSafety.h"
#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

// Whether a consumer that finds the queue empty spins before it blocks.
class IdleSpin {
 public:
  // Spins for a few microseconds once the last idle periods were short
  // enough for a spin to bridge them, and blocks at once otherwise.
  static constexpr IdleSpin adaptive() noexcept { return IdleSpin(true); }
  // Blocks as soon as the queue is empty; the baseline that the adaptive
  // spin is measured against.
  static constexpr IdleSpin never() noexcept { return IdleSpin(false); }

  constexpr bool mayEverSpin() const noexcept { return mayEverSpin_; }

 private:
  constexpr explicit IdleSpin(bool mayEverSpin) noexcept : mayEverSpin_(mayEverSpin) {}
  bool mayEverSpin_;
};

class DispatchQueue {
  // The unit of cache coherence on the machines this runs on.
  static constexpr std::size_t kCacheLine = 64;
  // The most entries a consumer takes at one visit of the mutex.
  static constexpr std::size_t kTakeAhead = 32;

 public:
  // A queued event. The copy made by an asynchronous publish belongs to the
  // queue alone and is held without a shared count, which would cost an
  // allocation and two atomic operations per event; an action is shared
  // with its waiting requester.
  struct Entry {
    std::unique_ptr<BaseEvent> owned;
    boost::shared_ptr<BaseEvent> shared;
    // diagnostics hook: when it was queued (0 unless its wait is judged or traced)
    std::int64_t queuedAtNs = 0;
    const BaseEvent* get() const noexcept { return owned ? owned.get() : shared.get(); }
  };

  // Everything that was queued, taken at once by takeAll(), in queue order:
  // the entries pushed at the front since the consumer took some ahead,
  // those it took ahead, then the rest.
  class Drained {
   public:
    template <typename Visit>
    void forEach(Visit visit) const {
      for (std::size_t i = 0; i < count_; ++i) {
        if (i == front_) {
          for (std::size_t j = 0; j < aheadCount_; ++j) {
            visit(ahead_[j]);
          }
        }
        visit(slots_[(head_ + i) & (capacity_ - 1)]);
      }
      for (std::size_t j = 0; j < aheadCount_ && front_ >= count_; ++j) {
        visit(ahead_[j]);
      }
    }
    // Destroys the entries (and so the events).
    void clear() noexcept {
      slots_.reset();
      capacity_ = head_ = count_ = front_ = 0;
      for (std::size_t j = 0; j < aheadCount_; ++j) {
        ahead_[j] = Entry();
      }
      aheadCount_ = 0;
    }

   private:
    friend class DispatchQueue;
    std::unique_ptr<Entry[]> slots_;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    std::size_t front_ = 0;  // Ring entries that go before those taken ahead.
    std::array<Entry, kTakeAhead> ahead_;
    std::size_t aheadCount_ = 0;
  };

  // The longest wait of take() on an empty queue.
  static constexpr std::chrono::seconds kIdleWait{1};

  // Throws std::bad_alloc if the queue cannot be set up.
  explicit DispatchQueue(IdleSpin spin) : spin_(spin) {}
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // Queues `entry` at the back (true) or the front (false) and wakes a
  // waiting consumer. Throws std::bad_alloc with nothing queued if memory
  // runs out.
  void push(Entry entry, bool atBack);
  // Consumer thread. Moves the front entry into `entry` and returns true; or,
  // with the queue empty, waits for a push, a wake() or kIdleWait and
  // returns false (an entry pushed meanwhile is taken by the next call).
  // Does not wait while `stop`, if given, is set. Never throws.
  bool take(Entry& entry, const std::atomic<bool>* stop);
  // Consumer thread: takes back an entry whose delivery has ended. An event
  // copy that the queue owned is destroyed later, with the others handed
  // back before the next visit of the mutex; a shared one is let go now.
  void handBack(Entry delivered) noexcept;
  // Destroys the event copies handed back and not destroyed yet. On the
  // consumer thread, or on any thread once the consumer has ended.
  void destroyHandedBack() noexcept;
  // Wakes a consumer that waits in take(). Passing through the mutex
  // orders whatever the caller set before (a stop request) before the
  // consumer's next look at the queue, so the wake-up cannot be missed.
  void wake();
  // Moves every queued entry into `into`, which must be empty, the entries
  // the consumer took ahead included: the storage changes hands, so nothing
  // is allocated. An entry that the consumer is handing out at that moment
  // is its own, as if it had been taken just before. Never throws.
  void takeAll(Drained& into) noexcept;
  // The number of queued entries.
  std::size_t size() const;

 private:
  using Clock = std::chrono::steady_clock;

  // Consumer thread, with the queue seen empty and mutex_ not held: spins
  // from `now` on, giving way, until a push is hinted at, `stop` is set or
  // the spin window has passed. True when a push was hinted at.
  bool spinForPush(Clock::time_point now, const std::atomic<bool>* stop) const;
  // Consumer thread: hands out the next entry taken ahead, unless there is
  // none, takeAll() claimed it, or a push at the front must overtake it.
  bool takeFromAhead(Entry& entry) noexcept;
  // Holding mutex_ through `held`, with the ring not empty: moves its front
  // entry into `entry`.
  void popFront(const MutexLock& held, Entry& entry) noexcept VEXUTIL_REQUIRES(mutex_);
  // Consumer thread, holding mutex_ through `held`: moves the entry at the
  // ring's front into `entry`, and up to kTakeAhead of those behind it into
  // taken_.
  void takeFromRing(const MutexLock& held, Entry& entry) VEXUTIL_REQUIRES(mutex_);
  // Consumer thread: counts an idle period that a spin would (true) or
  // would not (false) have bridged.
  void judgeIdlePeriod(bool bridged) noexcept;
  // Consumer thread, queue empty: waits on condition_ through `held`, which
  // holds mutex_, and judges the idle period unless it was judged already.
  void waitForPush(MutexLock& held, bool judged, const std::atomic<bool>* stop) VEXUTIL_REQUIRES(mutex_);
  // Doubles the storage (or makes the first), keeping the entries in order.
  // `held` holds mutex_. Strong guarantee: throws std::bad_alloc with nothing
  // changed.
  void growLocked(const MutexLock& held) VEXUTIL_REQUIRES(mutex_);

  const IdleSpin spin_;

  // The entries live in a ring of slots whose size is a power of two: the
  // front at head_, the back just before tail_. The ring grows by doubling
  // when a push finds it full and never shrinks, so a steady stream pushes
  // and takes without allocating.
  //
  // Each publisher meets the others and the consumer on mutex_ once per
  // entry, the consumer once per entry or per batch taken ahead; the rest is
  // laid out so that, in the steady state, every other cache line is written
  // by one side only: the mutex, with the count and the storage it guards
  // (the storage fields change only when the ring grows); the condition;
  // the count of pushes at the front; the consumer's state with the front
  // index and the entries taken ahead; the back index with the publishers'
  // hint.
  alignas(kCacheLine) mutable Mutex mutex_;
  std::size_t size_ VEXUTIL_GUARDED_BY(mutex_) = 0;
  std::uint64_t pushCount_ VEXUTIL_GUARDED_BY(mutex_) = 0;  // Entries ever pushed.
  // Clock::time_point::max() while the consumer waits on condition_; the
  // first push that finds it so replaces it by the time of the push, once
  // per wait.
  Clock::time_point wakeRequested_ VEXUTIL_GUARDED_BY(mutex_);
  std::unique_ptr<Entry[]> slots_ VEXUTIL_GUARDED_BY(mutex_);
  std::size_t capacity_ VEXUTIL_GUARDED_BY(mutex_) = 0;  // Zero or a power of two.
  // How many entries at the ring's front were pushed there while the
  // consumer held entries taken ahead: they go before those.
  std::size_t frontWaiting_ VEXUTIL_GUARDED_BY(mutex_) = 0;
  std::uint64_t frontPushCount_ VEXUTIL_GUARDED_BY(mutex_) = 0;  // Pushes at the front ever.

  // Notified after every push.
  alignas(kCacheLine) std::condition_variable condition_;

  // frontPushCount_, stored under mutex_ by each push at the front. A
  // consumer that sees it change stops handing out entries taken ahead and
  // visits the mutex. On a line of its own, which only those rare pushes
  // write and only a consumer holding entries taken ahead reads.
  alignas(kCacheLine) std::atomic<std::uint64_t> frontPushes_{0};

  // Consumer thread only: the pushCount_ up to which it has seen the queue,
  // whether entries were left behind the last one taken, whether it was woken
  // by a push, and how many idle periods in a row a spin would have bridged.
  alignas(kCacheLine) std::uint64_t seenCount_ = 0;
  bool backlogged_ = false;
  bool woken_ = false;
  unsigned bridgedInARow_ = 0;
  // The slot of the front entry; written by take() and, rarely, by a push at
  // the front.
  std::size_t head_ VEXUTIL_GUARDED_BY(mutex_) = 0;
  // The entries taken ahead: taken_[takenNext_, takenEnd_) are still queued.
  // The consumer fills taken_ and sets takenEnd_ under mutex_ and reads
  // them freely; it advances takenNext_ by compare-and-swap, and takeAll()
  // claims what is left by exchanging it for takenEnd_, under mutex_.
  std::array<Entry, kTakeAhead> taken_;
  std::size_t takenEnd_ = 0;
  std::atomic<std::size_t> takenNext_{0};
  // Consumer thread only: the frontPushes_ it has seen, whether entries
  // pushed at the front still wait for it, and how many entries the ring
  // held when it last took from it.
  std::uint64_t frontPushesSeen_ = 0;
  bool frontStillWaiting_ = false;
  std::size_t ringLeftAtTake_ = 0;
  // Consumer thread only: the event copies handed back since the last visit
  // of the mutex (at most the entries of one visit). The copies are
  // allocated on the publishers' threads and freed on this one, into the
  // allocator's lists that those threads are allocating from: freed a batch
  // at a time instead of one after each delivery, four publishers with one
  // subscriber on two cores took 0.78 to 0.90 of the time (three runs).
  std::array<std::unique_ptr<BaseEvent>, kTakeAhead + 1> handedBack_;
  std::size_t handedBackCount_ = 0;

  // The slot after the back entry; written by pushes at the back.
  alignas(kCacheLine) std::size_t tail_ VEXUTIL_GUARDED_BY(mutex_) = 0;
  // A publisher's pushCount_, stored after it let mutex_ go: a value beyond
  // seenCount_ tells the spinning consumer that the mutex is worth taking,
  // and taking it then does not meet the publisher inside it. A hint only:
  // stores of concurrent publishers may land out of order and hide a newer
  // value for a moment, so the consumer decides by size_, and its spin is
  // bounded.
  std::atomic<std::uint64_t> pushHint_{0};
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DISPATCHQUEUE_H
