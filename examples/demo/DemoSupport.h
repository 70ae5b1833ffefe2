// SPDX-License-Identifier: MIT
// Small helpers of the demo: option parsing, timing samples, text output.
#ifndef VEXUTIL_EXAMPLES_DEMO_DEMOSUPPORT_H
#define VEXUTIL_EXAMPLES_DEMO_DEMOSUPPORT_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace demo {

// --- Options -------------------------------------------------------------------

struct Options {
  unsigned long workers = 4;
  unsigned long events = 5000;      // Per worker.
  unsigned long durationMs = 2000;  // Time limit of the load phase.
  bool quiet = false;
  bool help = false;
};

// A mistake on the command line; main() prints it and exits with code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

void printHelp(std::FILE* out);
Options parseOptions(int argc, const char* const* argv);

// --- Text ------------------------------------------------------------------------

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// A duration given in microseconds, in the unit that suits it: "850 us",
// "1.25 ms", "2.10 s".
std::string humanTime(double microseconds);

// Prints the demo's account unless it runs quietly.
class Narrator {
 public:
  explicit Narrator(bool quiet) : quiet_(quiet) {}
  void line(const char* pattern, ...) const __attribute__((format(printf, 2, 3)));
  void blank() const { line("%s", ""); }
  // A check: prints "ok" or "FAILED" after the text and remembers failures.
  // Failures are also printed when the demo runs quietly.
  bool check(bool passed, const std::string& text);
  unsigned failures() const { return failures_; }
  unsigned checks() const { return checks_; }
  bool quiet() const { return quiet_; }

 private:
  bool quiet_;
  unsigned checks_ = 0;
  unsigned failures_ = 0;
};

// --- Timing samples ----------------------------------------------------------------

using Clock = std::chrono::steady_clock;

inline double toMicroseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// Durations recorded by any thread; summarised by the main thread.
class Samples {
 public:
  struct Summary {
    std::size_t count = 0;
    double mean = 0;
    double median = 0;
    double p99 = 0;
    double max = 0;
  };

  void add(Clock::duration duration) {
    const double value = toMicroseconds(duration);
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(value);
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.clear();
  }
  Summary summary() const;

 private:
  mutable std::mutex mutex_;
  std::vector<double> values_;
};

// --- Threads -----------------------------------------------------------------------

// Lets the workers start together: wait() blocks until open() is called.
class StartGate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    condition_.wait(lock, [this] { return open_; });
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    condition_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  bool open_ = false;
};

// Undo actions for subscriptions, so that no subscriber is destroyed while it
// is still subscribed: whatever was not undone explicitly is undone, newest
// first, when the list goes out of scope.
class SubscriptionList {
 public:
  SubscriptionList() = default;
  SubscriptionList(const SubscriptionList&) = delete;
  SubscriptionList& operator=(const SubscriptionList&) = delete;
  ~SubscriptionList() {
    while (!undo_.empty()) {
      try {
        undoLast();
      } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor lets nothing out.
      }
    }
  }

  void add(std::string label, std::function<void()> undo) { undo_.emplace_back(std::move(label), std::move(undo)); }
  bool empty() const { return undo_.empty(); }
  // Undoes the newest entry and returns its label.
  std::string undoLast() {
    std::pair<std::string, std::function<void()>> entry = std::move(undo_.back());
    undo_.pop_back();
    entry.second();
    return entry.first;
  }

 private:
  std::vector<std::pair<std::string, std::function<void()>>> undo_;
};

}  // namespace demo

#endif  // VEXUTIL_EXAMPLES_DEMO_DEMOSUPPORT_H
