#include "DispatchQueue.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "DiagnosticsHooks.h"
#include "YieldWatch.h"

namespace vexutil {
namespace eventmgr {

namespace {

// How long an idle consumer keeps looking at the queue before it blocks,
// when it looks at all (see kBridgedInARowToSpin). A stream whose entries
// follow one another this closely costs no wake-up per entry. The spin only
// pays where the gap it bridges is short: beyond a few microseconds it costs
// more CPU than the sleep and wake-up it saves, so the window is kept short
// and a stream with wider gaps is left to the wait. Measured with paced
// streams: a 10 us window spun through 5 us gaps for 1.65 times the CPU per
// event of a consumer that never spins; 4 us still bridges the gaps of
// synchronous round trips and dense streams (one to two microseconds).
constexpr auto kIdleSpin = std::chrono::microseconds(4);

// Whether the consumer spins at all is decided by what its recent idle
// periods would have gained, much as an adaptive mutex decides: it spins
// once this many idle periods in a row have ended within kIdleSpin, and
// stops at the first one that does not; otherwise it blocks at once. A
// dense stream or a run of requests keeps the spin; a sparse or paced
// stream costs one wasted spin at most and from then on a wake-up per
// entry. Two in a row, so that a pair of entries pushed together does not
// buy spins that the next gaps would waste. An idle period spent blocked is
// judged by the moment a publisher found the consumer waiting, so that the
// slowness of the wake-up itself does not count against the stream.
constexpr unsigned kBridgedInARowToSpin = 2;

// The slots of a ring's first storage; each doubling is rarer than the last.
constexpr std::size_t kFirstCapacity = 64;

// How often the contended mutex is tried, pausing in between, before the
// caller sleeps on it. The mutex is held for a few dozen nanoseconds at a
// time: when a publisher and the consumer meet on it, sleeping would cost the
// one a futex wait and the other a futex wake, each far longer than the wait;
// on two cores that met on every other entry.
constexpr unsigned kLockTries = 64;

bool isSet(const std::atomic<bool>* flag) noexcept { return flag != nullptr && flag->load(std::memory_order_acquire); }

}  // namespace

void DispatchQueue::growLocked(const MutexLock& /*held*/) {
  const std::size_t capacity = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
  std::unique_ptr<Entry[]> slots(new Entry[capacity]);
  for (std::size_t i = 0; i < size_; ++i) {
    slots[i] = std::move(slots_[(head_ + i) & (capacity_ - 1)]);
  }
  slots_ = std::move(slots);
  capacity_ = capacity;
  head_ = 0;
  tail_ = size_;
}

void DispatchQueue::push(Entry entry, bool atBack) {
  // diagnostics hook: queue time stamp
  entry.queuedAtNs = diagnostics::queueStamp();
  std::uint64_t count = 0;
  {
    const MutexLock held(mutex_, kLockTries);
    if (size_ == capacity_) {
      growLocked(held);
    }
    if (atBack) {
      slots_[tail_] = std::move(entry);
      tail_ = (tail_ + 1) & (capacity_ - 1);
    } else {
      head_ = (head_ - 1) & (capacity_ - 1);
      slots_[head_] = std::move(entry);
      ++frontWaiting_;
      frontPushes_.store(++frontPushCount_, std::memory_order_release);
    }
    ++size_;
    count = ++pushCount_;
    if (wakeRequested_ == Clock::time_point::max()) {
      // Once per wait of the consumer: when its idle period ended.
      wakeRequested_ = Clock::now();
    }
  }
  pushHint_.store(count, std::memory_order_release);
  // With nobody waiting, notify_all() of a std::condition_variable only
  // reads the condition's waiter count.
  condition_.notify_all();
}

void DispatchQueue::wake() {
  { const MutexLock held(mutex_); }
  condition_.notify_all();
}

void DispatchQueue::takeAll(Drained& into) noexcept {
  const MutexLock held(mutex_);
  into.slots_.swap(slots_);
  std::swap(into.capacity_, capacity_);
  into.head_ = head_;
  into.count_ = size_;
  into.front_ = frontWaiting_;
  head_ = tail_ = size_ = frontWaiting_ = 0;
  // The consumer fills taken_ only under the mutex, and from here on hands
  // out none of the claimed entries: they are ours to move.
  for (std::size_t i = takenNext_.exchange(takenEnd_, std::memory_order_acq_rel); i < takenEnd_; ++i) {
    into.ahead_[into.aheadCount_++] = std::move(taken_[i]);
  }
}

std::size_t DispatchQueue::size() const {
  const MutexLock held(mutex_);
  return size_ + (takenEnd_ - takenNext_.load(std::memory_order_acquire));
}

bool DispatchQueue::spinForPush(Clock::time_point now, const std::atomic<bool>* stop) const {
  // The spin gives way at every turn instead of pausing: the thread that the
  // last delivery woke (a synchronous requester, a publisher) is often
  // queued on this very core, and a spin that kept the core would make it
  // wait for the spin to end. With nothing else to run, a yield returns at
  // once and the spin goes on. A yield that lost the core to other work
  // outlasts the window and so ends the spin; YieldWatch counts it, and
  // while such yields keep coming take() does not spin at all.
  //
  // Only a hint beyond what the consumer has seen counts: a publisher's
  // store may still be on its way after the consumer saw its entry under
  // the mutex, and an old value is no news.
  const std::uint64_t seen = seenCount_;
  YieldWatch& yields = YieldWatch::processWide();
  const Clock::time_point spinEnd = now + kIdleSpin;
  while (pushHint_.load(std::memory_order_acquire) <= seen) {
    if (isSet(stop) || now >= spinEnd) {
      return false;
    }
    now = yields.yieldOnce(now);
  }
  return true;
}

void DispatchQueue::judgeIdlePeriod(bool bridged) noexcept {
  bridgedInARow_ = bridged ? (std::min)(bridgedInARow_ + 1, kBridgedInARowToSpin) : 0;
}

void DispatchQueue::waitForPush(MutexLock& held, bool judged, const std::atomic<bool>* stop) {
  backlogged_ = false;
  if (isSet(stop)) {
    return;
  }
  const Clock::time_point idleStart = judged ? Clock::time_point() : Clock::now();
  wakeRequested_ = Clock::time_point::max();
  condition_.wait_for(held.forWait(), kIdleWait);
  if (wakeRequested_ != Clock::time_point::max()) {
    // A publisher found the consumer waiting and took the time.
    woken_ = true;
    if (!judged) {
      judgeIdlePeriod(wakeRequested_ - idleStart < kIdleSpin);
    }
  }
  wakeRequested_ = Clock::time_point();
}

bool DispatchQueue::takeFromAhead(Entry& entry) noexcept {
  std::size_t next = takenNext_.load(std::memory_order_relaxed);
  if (next == takenEnd_ || frontStillWaiting_ || frontPushes_.load(std::memory_order_acquire) != frontPushesSeen_ ||
      !takenNext_.compare_exchange_strong(next, next + 1, std::memory_order_acq_rel)) {
    return false;
  }
  entry = std::move(taken_[next]);
  // The consumer was found behind its publishers: after the last entry taken
  // ahead it goes straight back to the mutex, where more have most likely
  // arrived meanwhile, instead of spinning for a hint. Measured: judging the
  // idle period there (the spin gives way at every turn) cost a tenth of
  // the throughput of a stream across two cores.
  backlogged_ = true;
  // diagnostics hook: dequeue (high-water mark, tracepoint)
  diagnostics::noteDequeue(entry.get(), takenEnd_ - next - 1 + ringLeftAtTake_, entry.queuedAtNs);
  return true;
}

void DispatchQueue::popFront(const MutexLock& /*held*/, Entry& entry) noexcept {
  entry = std::move(slots_[head_]);
  head_ = (head_ + 1) & (capacity_ - 1);
  --size_;
}

void DispatchQueue::takeFromRing(const MutexLock& held, Entry& entry) {
  popFront(held, entry);
  std::size_t ahead = 0;
  for (; ahead < kTakeAhead && size_ != 0; ++ahead) {
    popFront(held, taken_[ahead]);
  }
  takenEnd_ = ahead;
  takenNext_.store(0, std::memory_order_release);
  frontPushesSeen_ = frontPushCount_;
  ringLeftAtTake_ = size_;
  backlogged_ = ahead != 0;
}

void DispatchQueue::handBack(Entry delivered) noexcept {
  if (!delivered.owned) {
    return;  // A shared entry goes now; its requester holds the other share.
  }
  if (handedBackCount_ == handedBack_.size()) {
    destroyHandedBack();
  }
  handedBack_[handedBackCount_++] = std::move(delivered.owned);
}

void DispatchQueue::destroyHandedBack() noexcept {
  for (std::size_t i = 0; i < handedBackCount_; ++i) {
    handedBack_[i].reset();
  }
  handedBackCount_ = 0;
}

bool DispatchQueue::take(Entry& entry, const std::atomic<bool>* stop) {
  if (takeFromAhead(entry)) {
    return true;
  }
  destroyHandedBack();  // Before the mutex, the spin or the wait.
  if (takenNext_.load(std::memory_order_relaxed) != takenEnd_) {
    // A push at the front came after some entries were taken ahead; the
    // entries pushed there since go first, and those taken ahead follow.
    MutexLock held(mutex_, kLockTries);
    frontPushesSeen_ = frontPushCount_;
    if (frontWaiting_ != 0) {
      popFront(held, entry);
      frontStillWaiting_ = --frontWaiting_ != 0;
      backlogged_ = true;
      // diagnostics hook: dequeue (high-water mark, tracepoint)
      diagnostics::noteDequeue(entry.get(), size_ + (takenEnd_ - takenNext_.load(std::memory_order_relaxed)),
                               entry.queuedAtNs);
      return true;
    }
    frontStillWaiting_ = false;
    if (takeFromAhead(entry)) {
      return true;
    }
    // takeAll() claimed them: the queue starts afresh below.
  }
  // With nothing left behind the last entry, a consumer whose recent idle
  // periods were short waits for a publisher's hint before it takes the
  // mutex: a consumer that is ahead of its publishers then neither takes the
  // mutex just to find the queue empty nor takes it while a publisher is
  // still inside. Otherwise it goes straight to the queue and blocks there.
  // Each idle period is judged once: by the spin, or by the wait that
  // follows a look without a spin; the call after a wake-up judges nothing.
  bool judged = backlogged_ || woken_;
  woken_ = false;
  // While yields lose the core to other work, the consumer blocks at once,
  // and the wait judges the idle period.
  if (!judged && spin_.mayEverSpin() && bridgedInARow_ >= kBridgedInARowToSpin) {
    const Clock::time_point now = Clock::now();
    if (YieldWatch::processWide().pays(now)) {
      judgeIdlePeriod(spinForPush(now, stop));
      judged = true;
    }
  }
  MutexLock held(mutex_, kLockTries);
  seenCount_ = pushCount_;
  // With nothing taken ahead, the ring's order is the queue's.
  frontWaiting_ = 0;
  frontStillWaiting_ = false;
  if (size_ == 0) {
    waitForPush(held, judged, stop);
    return false;
  }
  if (!judged) {
    judgeIdlePeriod(true);  // It arrived while the last one was delivered.
  }
  takeFromRing(held, entry);
  // diagnostics hook: dequeue (high-water mark, tracepoint)
  diagnostics::noteDequeue(entry.get(), size_ + takenEnd_, entry.queuedAtNs);
  return true;
}

}  // namespace eventmgr
}  // namespace vexutil
