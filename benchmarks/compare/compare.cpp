// SPDX-License-Identifier: MIT
// vexutil-compare: two workloads, run the same way on this library and on
// systems that do a similar job.
//
// Workloads
//   async  One thread posts N clones of a PayloadEvent (two type names); one
//          worker thread hands each to one subscriber. Measured from the first
//          post to the return of the last subscriber call, in ns per event.
//   sync   One thread posts a clone and waits until the subscriber has seen
//          it, N times in a row; ns per round trip.
//
// Systems
//   vexutil     EventMgr::instance(): publish(event, false) / publish(event, true)
//   asio        boost::asio::io_context run by one worker thread: post() /
//               post() plus a std::promise that the caller waits for
//   qt          QMetaObject::invokeMethod to an object living in a QThread:
//               Qt::QueuedConnection / Qt::BlockingQueuedConnection
//   locked      std::mutex + std::condition_variable + std::deque, one event
//               per lock: the floor of a locked queue
//   lockfree    moodycamel::BlockingConcurrentQueue: the lock-free floor
//
// Every system gets the same event, clones it on every post with the same
// clone(), and calls the same Sink member function on its worker thread. The
// systems are interleaved: every round runs each of them once, in an order
// that rotates from round to round, so that a slow phase of a shared machine
// falls on all of them alike. The first round warms up and is not counted.
//
// Usage: vexutil-compare [--rounds R] [--events N] [--round-trips M] [--csv FILE]
//                        [--systems asio,qt,locked,lockfree] [--placement P]
// vexutil is always measured: the ratios are taken to it.
//
// Placement: `split` (the default) moves the posting thread to one CPU and
// every worker to another, so that each event crosses between cores;
// `shared` puts them all on one CPU; `free` leaves threads where the kernel
// puts them. On a
// shared virtual machine the kernel's choice changes from run to run and,
// with it, every figure by a factor of up to three, so the two fixed
// placements are what to compare between runs.
#include <QCoreApplication>
#include <QObject>
#include <QThread>

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <future>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "BenchmarkEvents.h"
#include "blockingconcurrentqueue.h"
#include "vexutil/eventmgr/EventMgr.h"

namespace {

using vexbench::BenchClock;
using vexbench::Completion;
using vexbench::PayloadEvent;
using vexbench::pinCurrentThread;
using vexbench::Sink;
using vexutil::eventmgr::BaseEvent;
using EventBox = std::unique_ptr<BaseEvent>;

double nanoseconds(BenchClock::duration duration) {
  return std::chrono::duration<double, std::nano>(duration).count();
}

class System {
 public:
  System() { sink_.completion = &completion_; }
  // Moves the worker thread to `cpu` at its next delivery (-1: leave it).
  void setWorkerCpu(int cpu) { sink_.workerCpu = cpu; }
  virtual ~System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  virtual const char* name() const = 0;

  // ns per event from the first post to the last delivery.
  double runAsync(const PayloadEvent& event, std::uint64_t count) {
    completion_.expect(count);
    const BenchClock::time_point start = BenchClock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
      post(event);
    }
    return nanoseconds(completion_.wait() - start) / static_cast<double>(count);
  }

  // ns per round trip.
  double runSync(const PayloadEvent& event, std::uint64_t count) {
    completion_.expect(count);
    const std::uint64_t before = sink_.received;
    const BenchClock::time_point start = BenchClock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
      call(event);
    }
    const BenchClock::time_point end = BenchClock::now();
    completion_.wait();
    if (sink_.received - before != count) {
      throw std::runtime_error(std::string(name()) + ": a round trip returned before its delivery");
    }
    return nanoseconds(end - start) / static_cast<double>(count);
  }

 protected:
  // Queues a clone of `event` for the worker and returns.
  virtual void post(const PayloadEvent& event) = 0;
  // Hands a clone of `event` to the worker and returns once it was delivered.
  virtual void call(const PayloadEvent& event) = 0;

  // The subscriber call, on the worker thread.
  void deliver(const BaseEvent& event) { sink_.onPayload(static_cast<const PayloadEvent&>(event)); }

  Sink sink_;

 private:
  Completion completion_;
};

// --- This library -------------------------------------------------------------

class VexutilSystem final : public System {
 public:
  VexutilSystem() : eventMgr_(vexutil::eventmgr::EventMgr::instance()) {
    eventMgr_->subscribe(PayloadEvent::typeName(), &sink_, &Sink::onPayload);
  }
  ~VexutilSystem() override { eventMgr_->unSubscribe(PayloadEvent::typeName(), &sink_, &Sink::onPayload); }
  const char* name() const override { return "vexutil"; }

 protected:
  void post(const PayloadEvent& event) override { eventMgr_->publish(event, false); }
  void call(const PayloadEvent& event) override { eventMgr_->publish(event, true); }

 private:
  vexutil::eventmgr::EventMgr* eventMgr_;
};

// --- Boost.Asio -----------------------------------------------------------------

class AsioSystem final : public System {
 public:
  AsioSystem() : context_(1), work_(boost::asio::make_work_guard(context_)), worker_([this] { context_.run(); }) {}
  ~AsioSystem() override {
    work_.reset();
    worker_.join();
  }
  const char* name() const override { return "asio"; }

 protected:
  void post(const PayloadEvent& event) override {
    boost::asio::post(context_, [this, box = EventBox(event.clone())] { deliver(*box); });
  }
  void call(const PayloadEvent& event) override {
    std::promise<void> done;
    std::future<void> delivered = done.get_future();
    boost::asio::post(context_, [this, &done, box = EventBox(event.clone())] {
      deliver(*box);
      done.set_value();
    });
    delivered.wait();
  }

 private:
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::thread worker_;
};

// --- Qt 5 QtCore -----------------------------------------------------------------

class QtSystem final : public System {
 public:
  QtSystem() {
    receiver_.moveToThread(&thread_);
    thread_.start();
  }
  ~QtSystem() override {
    thread_.quit();
    thread_.wait();
  }
  const char* name() const override { return "qt"; }

 protected:
  void post(const PayloadEvent& event) override {
    QMetaObject::invokeMethod(
        &receiver_, [this, box = EventBox(event.clone())] { deliver(*box); }, Qt::QueuedConnection);
  }
  void call(const PayloadEvent& event) override {
    QMetaObject::invokeMethod(
        &receiver_, [this, box = EventBox(event.clone())] { deliver(*box); }, Qt::BlockingQueuedConnection);
  }

 private:
  QThread thread_;
  QObject receiver_;
};

// --- The floor of a locked queue ------------------------------------------------------

class LockedQueueSystem final : public System {
 public:
  LockedQueueSystem() : worker_([this] { run(); }) {}
  ~LockedQueueSystem() override {
    push(Item{});
    worker_.join();
  }
  const char* name() const override { return "locked"; }

 protected:
  void post(const PayloadEvent& event) override { push(Item{EventBox(event.clone()), nullptr}); }
  void call(const PayloadEvent& event) override {
    Reply reply;
    std::unique_lock<std::mutex> lock(reply.mutex);
    push(Item{EventBox(event.clone()), &reply});
    reply.condition.wait(lock, [&reply] { return reply.done; });
  }

 private:
  struct Reply {
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
  };
  struct Item {
    EventBox event;  // Null: the worker stops.
    Reply* reply = nullptr;
  };

  void push(Item item) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(std::move(item));
    }
    condition_.notify_one();
  }

  void run() {
    for (;;) {
      Item item;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait(lock, [this] { return !queue_.empty(); });
        item = std::move(queue_.front());
        queue_.pop_front();
      }
      if (!item.event) {
        return;
      }
      deliver(*item.event);
      if (item.reply != nullptr) {
        std::lock_guard<std::mutex> lock(item.reply->mutex);
        item.reply->done = true;
        item.reply->condition.notify_one();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable condition_;
  std::deque<Item> queue_;  // Guarded by mutex_.
  std::thread worker_;
};

// --- The lock-free floor -------------------------------------------------------------

class LockFreeQueueSystem final : public System {
 public:
  LockFreeQueueSystem() : worker_([this] { run(); }) {}
  ~LockFreeQueueSystem() override {
    queue_.enqueue(Item{});
    worker_.join();
  }
  const char* name() const override { return "lockfree"; }

 protected:
  void post(const PayloadEvent& event) override { queue_.enqueue(Item{EventBox(event.clone()), false}); }
  void call(const PayloadEvent& event) override {
    queue_.enqueue(Item{EventBox(event.clone()), true});
    int done = 0;
    replies_.wait_dequeue(done);
  }

 private:
  struct Item {
    EventBox event;  // Null: the worker stops.
    bool reply = false;
  };

  void run() {
    for (;;) {
      Item item;
      queue_.wait_dequeue(item);
      if (!item.event) {
        return;
      }
      deliver(*item.event);
      if (item.reply) {
        replies_.enqueue(1);
      }
    }
  }

  moodycamel::BlockingConcurrentQueue<Item> queue_;
  moodycamel::BlockingConcurrentQueue<int> replies_;
  std::thread worker_;
};

// --- Driver ----------------------------------------------------------------------------

struct Options {
  int rounds = 7;
  std::uint64_t events = 100000;
  std::uint64_t roundTrips = 4000;
  std::string csv;
  std::string systems = "vexutil,asio,qt,locked,lockfree";
  std::string placement = "split";
};

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        throw std::invalid_argument(argument + " needs a value");
      }
      return argv[++i];
    };
    if (argument == "--rounds") {
      options.rounds = std::stoi(value());
    } else if (argument == "--events") {
      options.events = std::stoull(value());
    } else if (argument == "--round-trips") {
      options.roundTrips = std::stoull(value());
    } else if (argument == "--csv") {
      options.csv = value();
    } else if (argument == "--placement") {
      options.placement = value();
      if (options.placement != "free" && options.placement != "split" && options.placement != "shared") {
        throw std::invalid_argument("--placement takes free, split or shared");
      }
    } else if (argument == "--systems") {
      options.systems = "vexutil," + value();
    } else {
      throw std::invalid_argument("unknown argument " + argument);
    }
  }
  if (options.rounds < 1 || options.events == 0 || options.roundTrips == 0) {
    throw std::invalid_argument("--rounds, --events and --round-trips must be positive");
  }
  return options;
}

// The posting thread's CPU and the workers': the first two CPUs this process
// may use, or the first one twice.
std::pair<int, int> placementCpus(bool split) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
    throw std::runtime_error("cannot read the CPU affinity");
  }
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) {
      cpus.push_back(cpu);
    }
  }
  if (cpus.empty() || (split && cpus.size() < 2)) {
    throw std::runtime_error("--placement split needs two CPUs");
  }
  return {cpus[0], split ? cpus[1] : cpus[0]};
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

struct Results {
  std::vector<double> async;
  std::vector<double> sync;
};

int runComparison(const Options& options) {
  const auto wanted = [&options](const std::string& name) {
    return ("," + options.systems + ",").find("," + name + ",") != std::string::npos;
  };
  std::vector<std::unique_ptr<System>> systems;
  systems.emplace_back(new VexutilSystem);
  if (wanted("asio")) {
    systems.emplace_back(new AsioSystem);
  }
  if (wanted("qt")) {
    systems.emplace_back(new QtSystem);
  }
  if (wanted("locked")) {
    systems.emplace_back(new LockedQueueSystem);
  }
  if (wanted("lockfree")) {
    systems.emplace_back(new LockFreeQueueSystem);
  }
  std::vector<Results> results(systems.size());
  if (options.placement != "free") {
    const auto [postingCpu, workerCpu] = placementCpus(options.placement == "split");
    if (!pinCurrentThread(postingCpu)) {
      throw std::runtime_error("cannot move the posting thread to CPU " + std::to_string(postingCpu));
    }
    for (const std::unique_ptr<System>& system : systems) {
      system->setWorkerCpu(workerCpu);
    }
  }

  const PayloadEvent event(7);
  std::cout << "rounds " << options.rounds << " (+1 warm-up), " << options.events << " events, "
            << options.roundTrips << " round trips per run, placement " << options.placement << "\n"
            << std::flush;
  for (int round = 0; round <= options.rounds; ++round) {
    const bool counted = round > 0;
    for (std::size_t k = 0; k < systems.size(); ++k) {
      const std::size_t s = (k + static_cast<std::size_t>(round)) % systems.size();
      const double ns = systems[s]->runAsync(event, counted ? options.events : options.events / 4);
      if (counted) {
        results[s].async.push_back(ns);
      }
    }
    for (std::size_t k = 0; k < systems.size(); ++k) {
      const std::size_t s = (k + static_cast<std::size_t>(round)) % systems.size();
      const double ns = systems[s]->runSync(event, counted ? options.roundTrips : options.roundTrips / 4);
      if (counted) {
        results[s].sync.push_back(ns);
      }
    }
  }

  const double ownAsync = median(results[0].async);
  const double ownSync = median(results[0].sync);
  std::cout << "\nmedian of " << options.rounds << " rounds; ratio = system / vexutil (above 1: vexutil is faster)\n\n";
  std::cout << std::left << std::setw(10) << "system" << std::right << std::setw(14) << "async ns/ev"
            << std::setw(8) << "ratio" << std::setw(20) << "async min..max" << std::setw(16) << "sync ns/trip"
            << std::setw(8) << "ratio" << std::setw(20) << "sync min..max" << '\n';
  std::ofstream csv;
  if (!options.csv.empty()) {
    csv.open(options.csv);
    if (!csv) {
      throw std::runtime_error("cannot write " + options.csv);
    }
    csv << "system,async_ns_per_event,async_ratio_to_vexutil,async_min_ns,async_max_ns,"
           "sync_ns_per_round_trip,sync_ratio_to_vexutil,sync_min_ns,sync_max_ns\n";
  }
  for (std::size_t s = 0; s < systems.size(); ++s) {
    const Results& r = results[s];
    const double asyncMedian = median(r.async);
    const double syncMedian = median(r.sync);
    const auto [asyncMin, asyncMax] = std::minmax_element(r.async.begin(), r.async.end());
    const auto [syncMin, syncMax] = std::minmax_element(r.sync.begin(), r.sync.end());
    char asyncRange[64];
    char syncRange[64];
    std::snprintf(asyncRange, sizeof asyncRange, "%.0f..%.0f", *asyncMin, *asyncMax);
    std::snprintf(syncRange, sizeof syncRange, "%.0f..%.0f", *syncMin, *syncMax);
    std::cout << std::left << std::setw(10) << systems[s]->name() << std::right << std::fixed << std::setprecision(0)
              << std::setw(14) << asyncMedian << std::setprecision(2) << std::setw(8) << asyncMedian / ownAsync
              << std::setw(20) << asyncRange << std::setprecision(0) << std::setw(16) << syncMedian
              << std::setprecision(2) << std::setw(8) << syncMedian / ownSync << std::setw(20) << syncRange << '\n';
    if (csv.is_open()) {
      csv << systems[s]->name() << std::fixed << std::setprecision(1) << ',' << asyncMedian << ','
          << std::setprecision(3) << asyncMedian / ownAsync << ',' << std::setprecision(1) << *asyncMin << ','
          << *asyncMax << ',' << syncMedian << ',' << std::setprecision(3) << syncMedian / ownSync << ','
          << std::setprecision(1) << *syncMin << ',' << *syncMax << '\n';
    }
  }
  std::cout << std::flush;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = parseOptions(argc, argv);
    // QThread's event loop wants an application object; its own loop never runs.
    QCoreApplication application(argc, argv);
    return runComparison(options);
  } catch (const std::exception& failure) {
    std::cerr << "vexutil-compare: " << failure.what() << '\n';
    return 1;
  }
}
