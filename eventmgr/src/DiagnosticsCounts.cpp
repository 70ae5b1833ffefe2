// SPDX-License-Identifier: MIT
// The live counts: events published, counted per publishing thread; the
// dispatcher's outcomes, queue high-water mark and longest notify() (see
// DiagnosticsState.h for their sequence lock); and the snapshot that reads
// them all.
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "DiagnosticsState.h"
#include "Instance.h"
#include "TypeNames.h"
#include "vexutil/eventmgr/Diagnostics.h"
#include "vexutil/eventmgr/EventMgr.h"

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

DispatcherCounts dispatcherCounts;

namespace {

// Published events are counted per publishing thread, each thread in a slot
// of its own, so that publishers on different cores never write one cache
// line. A slot is handed to the next new thread when its thread ends and
// keeps its count; a snapshot adds all slots up.
struct alignas(64) PublishSlot {
  std::atomic<std::uint64_t> published{0};
  PublishSlot* next = nullptr;  // Guarded by PublishCounter::mutex_.
  bool inUse = false;           // Guarded by PublishCounter::mutex_.
};

class PublishCounter {
 public:
  PublishCounter() noexcept { keyMade_ = pthread_key_create(&key_, &PublishCounter::threadEnded) == 0; }
  ~PublishCounter() {
    // No thread that ends from now on comes back here.
    if (keyMade_) {
      pthread_key_delete(key_);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    while (slots_ != nullptr) {
      delete std::exchange(slots_, slots_->next);
    }
  }
  PublishCounter(const PublishCounter&) = delete;
  PublishCounter& operator=(const PublishCounter&) = delete;

  void count() noexcept {
    PublishSlot* slot = keyMade_ ? static_cast<PublishSlot*>(pthread_getspecific(key_)) : nullptr;
    if (slot == nullptr) {
      slot = takeSlot();
      if (slot == nullptr) {
        unslotted_.fetch_add(1, std::memory_order_relaxed);
        return;
      }
    }
    bump<std::uint64_t>(slot->published);
  }

  std::uint64_t total() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t sum = unslotted_.load(std::memory_order_relaxed);
    for (const PublishSlot* slot = slots_; slot != nullptr; slot = slot->next) {
      sum += slot->published.load(std::memory_order_relaxed);
    }
    return sum;
  }

 private:
  PublishSlot* takeSlot() noexcept {
    std::lock_guard<std::mutex> lock(mutex_);
    PublishSlot* slot = slots_;
    while (slot != nullptr && slot->inUse) {
      slot = slot->next;
    }
    if (slot == nullptr) {
      slot = new (std::nothrow) PublishSlot;
      if (slot == nullptr) {
        return nullptr;
      }
      slot->next = slots_;
      slots_ = slot;
    }
    if (!keyMade_ || pthread_setspecific(key_, slot) != 0) {
      return nullptr;  // Counted as unslotted; the slot stays free.
    }
    slot->inUse = true;
    return slot;
  }
  static void threadEnded(void* slot) noexcept;

  pthread_key_t key_{};
  bool keyMade_ = false;
  std::mutex mutex_;
  PublishSlot* slots_ = nullptr;  // Guarded by mutex_.
  std::atomic<std::uint64_t> unslotted_{0};
};

VEXUTIL_EARLY_STATIC PublishCounter publishCounter;

void PublishCounter::threadEnded(void* slot) noexcept {
  std::lock_guard<std::mutex> lock(publishCounter.mutex_);
  static_cast<PublishSlot*>(slot)->inUse = false;
}

// Dispatcher-side strings of the counts; each written only together with a
// change that is rare (a new no-subscriber type, a new longest notify).
struct CountsText {
  std::mutex mutex;
  std::string lastNoSubscriberType;     // Guarded by mutex.
  std::string longestNotifySubscriber;  // Guarded by mutex.
};

VEXUTIL_EARLY_STATIC CountsText countsText;

}  // namespace

void countPublished() noexcept { publishCounter.count(); }

void noteNotifyDuration(const ClientProxy& client, std::int64_t tookNs) {
  if (tookNs > dispatcherCounts.longestNotifyNs.load(std::memory_order_relaxed)) {
    std::string name = subscriberClassName(client);
    beginCountsChange();
    dispatcherCounts.longestNotifyNs.store(tookNs, std::memory_order_release);
    endCountsChange();
    std::lock_guard<std::mutex> lock(countsText.mutex);
    countsText.longestNotifySubscriber.swap(name);
  }
}

void finishCountedDelivery(const BaseEvent& event, std::uint64_t exceptionsBefore) noexcept {
  const bool found = dispatcherCounts.subscribersFound.load(std::memory_order_relaxed);
  const bool threw = dispatcherCounts.exceptions.load(std::memory_order_relaxed) != exceptionsBefore;
  if (found) {
    beginCountsChange();
    bump<std::uint64_t>(threw ? dispatcherCounts.failed : dispatcherCounts.delivered);
    endCountsChange();
    return;
  }
  // Nobody listened: rare enough in a working application to afford the
  // lock, which keeps the type name with the count.
  try {
    const std::string& type = event.getTypes().front();
    std::lock_guard<std::mutex> lock(countsText.mutex);
    if (countsText.lastNoSubscriberType != type) {
      countsText.lastNoSubscriberType = type;
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the old name stays.
  }
  beginCountsChange();
  bump<std::uint64_t>(dispatcherCounts.noSubscriber);
  endCountsChange();
}

}  // namespace diagnostics

EventCounts Diagnostics::getCounts() {
  using diagnostics::dispatcherCounts;
  EventCounts counts;
  // The dispatcher's counts as of one moment between two of its changes.
  for (;;) {
    const std::uint64_t before = dispatcherCounts.sequence.load(std::memory_order_acquire);
    // Acquire loads: one that reads a value of a change in progress also makes
    // the odd sequence of that change visible to the check below.
    counts.delivered = dispatcherCounts.delivered.load(std::memory_order_acquire);
    counts.failed = dispatcherCounts.failed.load(std::memory_order_acquire);
    counts.noSubscriber = dispatcherCounts.noSubscriber.load(std::memory_order_acquire);
    counts.subscriberExceptions = dispatcherCounts.exceptions.load(std::memory_order_acquire);
    counts.queueHighWater = dispatcherCounts.queueHighWater.load(std::memory_order_acquire);
    counts.longestNotify = std::chrono::nanoseconds(dispatcherCounts.longestNotifyNs.load(std::memory_order_acquire));
    if ((before & 1U) == 0 && dispatcherCounts.sequence.load(std::memory_order_relaxed) == before) {
      break;
    }
    std::this_thread::yield();
  }
  // After the outcomes: every event they count was counted here before it
  // was queued (or, if synchronous, before its delivery began).
  counts.published = diagnostics::publishCounter.total();
  {
    std::lock_guard<std::mutex> lock(diagnostics::countsText.mutex);
    counts.lastNoSubscriberType = diagnostics::countsText.lastNoSubscriberType;
    counts.longestNotifySubscriber = diagnostics::countsText.longestNotifySubscriber;
  }
  if (detail::isDefaultManagerCreated()) {
    counts.queueDepth = EventMgr::instance()->getPendingEventCount();
  }
  counts.queueHighWater = std::max(counts.queueHighWater, counts.queueDepth);
  return counts;
}

}  // namespace eventmgr
}  // namespace vexutil
