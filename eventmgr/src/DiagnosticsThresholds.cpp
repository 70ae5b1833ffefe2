// SPDX-License-Identifier: MIT
// The slow-subscriber thresholds: their setters, the environment variables
// that set them at load, and the ticker that keeps tickNs current while one
// is set (see DiagnosticsState.h for the timing scheme).
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "DiagnosticsState.h"
#include "TypeNames.h"
#include "vexutil/eventmgr/Diagnostics.h"

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

std::atomic<std::int64_t> notifyThresholdNs{0};
std::atomic<std::int64_t> queueThresholdNs{0};
std::atomic<std::int64_t> tickNs{0};

namespace {

// Keeps tickNs current while a threshold is set; ends when none is.
class Ticker {
 public:
  Ticker() = default;
  ~Ticker() { stop(); }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  std::int64_t start() noexcept {
    try {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!running_ && !stopped_ && period() != 0) {
        if (thread_.joinable()) {
          thread_.join();  // Ended by itself, and out of the lock already.
        }
        tickNs.store(nowNs(), std::memory_order_relaxed);
        thread_ = std::thread(&Ticker::run, this);
        running_ = true;
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): no thread, no timing.
    }
    return tickNs.load(std::memory_order_relaxed);
  }
  // A threshold changed: the next tick follows the new period.
  void wake() {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
  }
  void stop() noexcept {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  // The tick length for the thresholds set now, 0 if none is.
  static std::int64_t period() noexcept {
    const std::int64_t notify = notifyThresholdNs.load(std::memory_order_relaxed);
    const std::int64_t queue = queueThresholdNs.load(std::memory_order_relaxed);
    const std::int64_t smaller = notify <= 0 ? queue : queue <= 0 ? notify : std::min(notify, queue);
    if (smaller <= 0) {
      return 0;
    }
    constexpr std::int64_t kShortest = 1'000'000;
    constexpr std::int64_t kLongest = 100'000'000;
    return std::min(std::max(smaller / 8, kShortest), kLongest);
  }
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const std::int64_t length = period();
      if (length == 0 || stopped_) {
        break;
      }
      tickNs.store(nowNs(), std::memory_order_relaxed);
      changed_.wait_for(lock, std::chrono::nanoseconds(length));
    }
    tickNs.store(0, std::memory_order_relaxed);
    running_ = false;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool running_ = false;  // Guarded by mutex_.
  bool stopped_ = false;  // Guarded by mutex_; for good, at unload.
  std::thread thread_;    // Started and joined under mutex_, or in stop().
};

// The ticker, and the thresholds as the environment sets them at load.
struct SlowTiming {
  SlowTiming() {
    readThreshold("VEXUTIL_SLOW_NOTIFY_MS", notifyThresholdNs);
    readThreshold("VEXUTIL_SLOW_QUEUE_MS", queueThresholdNs);
  }
  // Whole milliseconds; anything else leaves the threshold off.
  static void readThreshold(const char* variable, std::atomic<std::int64_t>& threshold) {
    const char* const text = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): once, at load.
    if (text == nullptr || *text == '\0') {
      return;
    }
    char* end = nullptr;
    const long long milliseconds = std::strtoll(text, &end, 10);
    if (*end == '\0' && milliseconds > 0 && milliseconds < 1'000'000'000) {
      threshold.store(milliseconds * 1'000'000, std::memory_order_relaxed);
    }
  }

  Ticker ticker;
};

VEXUTIL_EARLY_STATIC SlowTiming slowTiming;

}  // namespace

std::int64_t startTicker() noexcept { return slowTiming.ticker.start(); }

}  // namespace diagnostics

void Diagnostics::setSlowNotifyThreshold(std::chrono::nanoseconds threshold) noexcept {
  diagnostics::notifyThresholdNs.store(std::max<std::int64_t>(threshold.count(), 0), std::memory_order_relaxed);
  diagnostics::slowTiming.ticker.wake();
}

std::chrono::nanoseconds Diagnostics::getSlowNotifyThreshold() noexcept {
  return std::chrono::nanoseconds(diagnostics::notifyThresholdNs.load(std::memory_order_relaxed));
}

void Diagnostics::setSlowQueueThreshold(std::chrono::nanoseconds threshold) noexcept {
  diagnostics::queueThresholdNs.store(std::max<std::int64_t>(threshold.count(), 0), std::memory_order_relaxed);
  diagnostics::slowTiming.ticker.wake();
}

std::chrono::nanoseconds Diagnostics::getSlowQueueThreshold() noexcept {
  return std::chrono::nanoseconds(diagnostics::queueThresholdNs.load(std::memory_order_relaxed));
}

}  // namespace eventmgr
}  // namespace vexutil
