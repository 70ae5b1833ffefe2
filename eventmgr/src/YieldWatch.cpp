// SPDX-License-Identifier: MIT
#include "YieldWatch.h"

#include <algorithm>
#include <thread>

namespace vexutil {
namespace eventmgr {

YieldWatch& YieldWatch::processWide() noexcept {
  // Initialized at compile time and trivially destroyed: usable at any
  // moment of the process's life, and never allocates.
  static YieldWatch watch;
  return watch;
}

YieldWatch::Clock::time_point YieldWatch::yieldOnce(Clock::time_point before) noexcept {
  std::this_thread::yield();
  const Clock::time_point after = Clock::now();
  note(before, after);
  return after;
}

void YieldWatch::note(Clock::time_point before, Clock::time_point after) noexcept {
  // Plain loads and stores: two threads that note at once may lose one
  // step of the score, which only shifts a decision by one yield. On a quiet
  // machine the score stays 0 and yields on time only read it.
  const int score = score_.load(std::memory_order_relaxed);
  if (after - before < kLate) {
    if (score > 0) {
      score_.store(score - 1, std::memory_order_relaxed);
      if (score == 1) {
        doublings_.store(0, std::memory_order_relaxed);
      }
    }
    return;
  }
  const int raised = (std::min)(score + kLateWeight, kMostScore);
  score_.store(raised, std::memory_order_relaxed);
  if (raised >= kPauseScore) {
    const int doublings = doublings_.load(std::memory_order_relaxed);
    doublings_.store((std::min)(doublings + 1, kMostDoublings), std::memory_order_relaxed);
    pausedUntil_.store((after + kFirstPause * (1 << doublings)).time_since_epoch().count(), std::memory_order_relaxed);
  }
}

}  // namespace eventmgr
}  // namespace vexutil
