// SPDX-License-Identifier: MIT
// Events and subscribers shared by the benchmarks and the comparison.
//
// PayloadEvent is what a host event looks like to the manager: a class with
// a two-name type list ("BenchmarkPayloadEvent", "BaseEvent") and a little
// data, copied whole by clone(). Its name is longer than the short-string
// buffer on purpose, as host event names usually are, so that every clone
// pays for its names the way a real one does.
//
// Sink is a subscriber that counts what it receives and, when it carries a
// Completion, reports the arrival of the last event of a batch. Every system
// of the comparison hands its events to the same Sink.
#ifndef VEXUTIL_BENCHMARKS_BENCHMARKEVENTS_H
#define VEXUTIL_BENCHMARKS_BENCHMARKEVENTS_H

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "vexutil/eventmgr/BaseEvent.h"

namespace vexbench {

using BenchClock = std::chrono::steady_clock;

class PayloadEvent : public vexutil::eventmgr::BaseEvent {
 public:
  explicit PayloadEvent(std::uint64_t sequence = 0) : BaseEvent(std::vector<std::string>{typeName()}), sequence_(sequence) {}
  PayloadEvent(const PayloadEvent& other) = default;
  PayloadEvent& operator=(const PayloadEvent& other) = default;
  ~PayloadEvent() override = default;

  PayloadEvent* clone() const override { return new PayloadEvent(*this); }

  std::uint64_t getSequence() const noexcept { return sequence_; }

  static const std::string& typeName() noexcept {
    static const std::string name("BenchmarkPayloadEvent");
    return name;
  }

 private:
  std::uint64_t sequence_;
};

// An event of its own type, for benchmarks that need a second one.
class ControlEvent : public vexutil::eventmgr::BaseEvent {
 public:
  ControlEvent() : BaseEvent(std::vector<std::string>{typeName()}) {}
  ControlEvent(const ControlEvent& other) = default;
  ControlEvent& operator=(const ControlEvent& other) = default;
  ~ControlEvent() override = default;

  ControlEvent* clone() const override { return new ControlEvent(*this); }

  static const std::string& typeName() noexcept {
    static const std::string name("BenchmarkControlEvent");
    return name;
  }
};

// Tells a waiting thread when a batch of deliveries is complete. arrive() is
// called by one delivering thread at a time; wait() by the measuring thread.
class Completion {
 public:
  // Expects `count` more arrivals. Call it while nothing is delivered.
  void expect(std::uint64_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    target_ = count;
    received_.store(0, std::memory_order_relaxed);
    complete_ = false;
  }

  void arrive() {
    const std::uint64_t received = received_.load(std::memory_order_relaxed) + 1;
    received_.store(received, std::memory_order_relaxed);
    if (received == target_) {
      const BenchClock::time_point now = BenchClock::now();
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = now;
      complete_ = true;
      condition_.notify_all();
    }
  }

  // Waits until the expected count has arrived; returns the time of the last
  // arrival.
  BenchClock::time_point wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    condition_.wait(lock, [this] { return complete_; });
    return finished_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  std::atomic<std::uint64_t> received_{0};
  std::uint64_t target_ = 0;  // Written under mutex_ while nothing arrives.
  bool complete_ = false;     // Guarded by mutex_.
  BenchClock::time_point finished_;
};

// Moves the calling thread to `cpu`; false when the system refuses.
inline bool pinCurrentThread(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

struct Sink {
  void onPayload(const PayloadEvent& event) {
    // The worker thread belongs to the system under test; the first delivery
    // is the first moment this code runs on it.
    if (workerCpu >= 0 && !workerPinned) {
      workerPinned = pinCurrentThread(workerCpu);
    }
    ++received;
    lastSequence = event.getSequence();
    if (completion != nullptr) {
      completion->arrive();
    }
  }
  void onControl(const ControlEvent& /*event*/) { ++received; }

  std::uint64_t received = 0;
  std::uint64_t lastSequence = 0;
  Completion* completion = nullptr;
  // The CPU to move the delivering thread to, or -1 to leave it where the
  // kernel puts it. Set before the first event is posted.
  int workerCpu = -1;
  bool workerPinned = false;  // Delivering thread only.
};

}  // namespace vexbench

#endif  // VEXUTIL_BENCHMARKS_BENCHMARKEVENTS_H
