// SPDX-License-Identifier: MIT
// YieldWatch: whether giving way in a short spin still pays on this machine.
//
// The dispatcher's idle spin and a waiting requester's first look give way
// with std::this_thread::yield(). On a quiet machine a yield returns at once,
// or after this process's other thread has used the core for a few
// microseconds. On a machine whose cores are busy with other processes, each
// yield hands the core to one of them until the scheduler next preempts it
// (a tick, about 4 ms here): a synchronous round trip then took 3.8 ms,
// where threads that block and are woken took about 0.1 ms.
//
// So each yield is timed and scored: a late one adds kLateWeight, one on
// time takes 1 off. Once the score reaches kPauseScore, spinning and
// looking pause and threads block at once. On a busy machine about one
// yield in three came back late, interleaved with quick ones, so the score
// stays high, the first late yield after a pause renews it, and each renewal
// doubles the pause from kFirstPause up to kLongestPause. A late yield now
// and then, which a quiet machine also sees (another thread of this process
// ran long on the core, the host preempted the virtual CPU, often both
// threads at once), pauses nothing or only briefly: the yields on time that
// follow take the score back to 0 within microseconds, and the pause length
// with it.
//
// Thread safety
//   Any thread. The process shares one watch (processWide()); its state is
//   three atomics used with relaxed order: a stale value costs one spin or one
//   block, never a missed event.
#ifndef VEXUTIL_EVENTMGR_SRC_YIELDWATCH_H
#define VEXUTIL_EVENTMGR_SRC_YIELDWATCH_H

#include <atomic>
#include <chrono>

namespace vexutil {
namespace eventmgr {

class YieldWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // A yield that takes this long lost the core to other work.
  static constexpr Clock::duration kLate = std::chrono::microseconds(500);
  static constexpr int kLateWeight = 8;
  static constexpr int kPauseScore = 24;
  static constexpr int kMostScore = 64;  // So that a quiet machine is seen again soon.
  static constexpr Clock::duration kFirstPause = std::chrono::milliseconds(2);
  static constexpr int kMostDoublings = 6;  // kLongestPause = 128 ms.
  static constexpr Clock::duration kLongestPause = kFirstPause * (1 << kMostDoublings);

  // The watch that the dispatcher and the requesters share.
  static YieldWatch& processWide() noexcept;

  // Whether a spin or a look may give way at `now`: false during a pause.
  bool pays(Clock::time_point now) const noexcept {
    return now.time_since_epoch().count() >= pausedUntil_.load(std::memory_order_relaxed);
  }
  // Gives way once, `before` being the time just before; returns the time
  // after, and notes whether the yield came back late.
  Clock::time_point yieldOnce(Clock::time_point before) noexcept;
  // Notes a yield that lasted from `before` to `after`.
  void note(Clock::time_point before, Clock::time_point after) noexcept;

 private:
  std::atomic<int> score_{0};
  std::atomic<int> doublings_{0};           // Of the next pause.
  std::atomic<Clock::rep> pausedUntil_{0};  // Clock ticks since its epoch.
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_YIELDWATCH_H
