// SPDX-License-Identifier: MIT
// Benchmarks of the event manager (Google Benchmark).
//
// Throughput and round trips go through the public interface of the
// process-wide manager. The delivery and routing costs are measured on the
// dispatcher thread itself, by calling the manager's deliver() from inside a
// subscriber: that is the code every event runs through, without the queue
// and the thread hand-off around it, so that costs of a few nanoseconds are
// not lost in the noise of a wake-up. Large subscription tables are built the
// same way, with the manager's own dispatcher-thread operation, instead of
// 100,000 round trips.
//
// Run: build/<dir>/benchmarks/vexutil-benchmarks [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCounter.h"
#include "BenchmarkEvents.h"
#include "DefaultEventMgr.h"
#include "DispatchQueue.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/Subscription.h"

namespace {

using vexbench::BenchClock;
using vexbench::Completion;
using vexbench::ControlEvent;
using vexbench::PayloadEvent;
using vexbench::Sink;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::DefaultEventMgr;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::Subscription;

using PayloadAdapter = ClientAdapter<Sink, PayloadEvent>;
using ControlAdapter = ClientAdapter<Sink, ControlEvent>;

// --- Running code on the dispatcher thread ------------------------------------

class RunEvent : public BaseEvent {
 public:
  RunEvent() : BaseEvent(std::vector<std::string>{typeName()}) {}
  RunEvent(const RunEvent& other) = default;
  RunEvent& operator=(const RunEvent& other) = default;
  ~RunEvent() override = default;
  RunEvent* clone() const override { return new RunEvent(*this); }
  static const std::string& typeName() noexcept {
    static const std::string name("BenchmarkRunEvent");
    return name;
  }
};

struct Runner {
  void onRun(const RunEvent& /*event*/) {  // NOLINT(readability-make-member-function-const): a handler is non-const.
    if (work) {
      work();
    }
  }
  std::function<void()> work;
};

DefaultEventMgr& manager() {
  auto* const defaultManager = dynamic_cast<DefaultEventMgr*>(EventMgr::instance());
  if (defaultManager == nullptr) {
    throw std::runtime_error("the default event manager is not running");
  }
  return *defaultManager;
}

// Runs `work` on the dispatcher thread and returns when it is done. The
// synchronous publish orders everything before it and after it.
void runOnDispatcher(std::function<void()> work) {
  static Runner runner;
  static const bool subscribed = [] {
    manager().subscribe(RunEvent::typeName(), &runner, &Runner::onRun);
    return true;
  }();
  (void)subscribed;
  runner.work = std::move(work);
  manager().publish(RunEvent(), true);
  runner.work = nullptr;
}

// Subscribes every sink to `eventType` in one trip to the dispatcher thread.
template <typename Adapter, typename Handler>
void addSinks(std::vector<Sink>& sinks, const std::string& eventType, Handler handler) {
  runOnDispatcher([&] {
    for (Sink& sink : sinks) {
      manager().addSubscription(eventType, EventMgr::ClientPtr(new Adapter(&sink, handler)));
    }
  });
}

template <typename Adapter, typename Handler>
void removeSinks(std::vector<Sink>& sinks, const std::string& eventType, Handler handler) {
  runOnDispatcher([&] {
    for (Sink& sink : sinks) {
      manager().removeSubscription(eventType, EventMgr::ClientPtr(new Adapter(&sink, handler)));
    }
  });
}

double nanoseconds(BenchClock::duration duration) { return std::chrono::duration<double, std::nano>(duration).count(); }

// --- Asynchronous publish to delivery -----------------------------------------

// Arguments: producer threads, subscribers of the event's type. One
// iteration publishes a batch and ends when the last subscriber call of the
// batch has returned; the time is that of the whole batch.
void BM_AsyncThroughput(benchmark::State& state) {
  const auto producers = static_cast<unsigned>(state.range(0));
  const auto subscribers = static_cast<std::size_t>(state.range(1));
  const std::uint64_t batch = std::uint64_t{subscribers >= 1000 ? 2000U : 20000U} / producers * producers;
  std::vector<Sink> sinks(subscribers);
  Completion completion;
  // Every subscriber sees every event; the first one reports the batch.
  sinks.front().completion = &completion;
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  EventMgr* const eventMgr = EventMgr::instance();
  const PayloadEvent event(1);
  double totalNs = 0;
  for (auto _ : state) {
    completion.expect(batch);
    BenchClock::time_point start;
    if (producers == 1) {
      start = BenchClock::now();
      for (std::uint64_t i = 0; i < batch; ++i) {
        eventMgr->publish(event, false);
      }
    } else {
      std::atomic<bool> go{false};
      std::vector<std::thread> threads;
      for (unsigned p = 0; p < producers; ++p) {
        threads.emplace_back([&] {
          while (!go.load(std::memory_order_acquire)) {
            std::this_thread::yield();
          }
          for (std::uint64_t i = 0; i < batch / producers; ++i) {
            eventMgr->publish(event, false);
          }
        });
      }
      start = BenchClock::now();
      go.store(true, std::memory_order_release);
      for (std::thread& thread : threads) {
        thread.join();
      }
    }
    const double elapsed = nanoseconds(completion.wait() - start);
    totalNs += elapsed;
    state.SetIterationTime(elapsed * 1e-9);
  }
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  const double events = static_cast<double>(batch) * static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(events));
  state.counters["ns_per_event"] = totalNs / events;
  state.counters["ns_per_delivery"] = totalNs / (events * static_cast<double>(subscribers));
}
BENCHMARK(BM_AsyncThroughput)
    ->ArgNames({"producers", "subscribers"})
    ->ArgsProduct({{1, 4}, {1, 10, 1000}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);

// --- Round trips -----------------------------------------------------------------

// Voluntary context switches of the calling thread so far: each one is a
// sleep on a futex, that is a wake-up that somebody has to pay for.
double threadSleeps() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_nvcsw);
}

double dispatcherSleeps() {
  double sleeps = 0;
  runOnDispatcher([&sleeps] { sleeps = threadSleeps(); });
  return sleeps;
}

// publish(event, true) to one subscriber: queue, hand-off, delivery, wake-up.
// The counters tell how often each side went to sleep per round trip.
void BM_SyncPublishRoundTrip(benchmark::State& state) {
  std::vector<Sink> sinks(1);
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  EventMgr* const eventMgr = EventMgr::instance();
  const PayloadEvent event(2);
  const double requesterBefore = threadSleeps();
  const double dispatcherBefore = dispatcherSleeps();
  for (auto _ : state) {
    eventMgr->publish(event, true);
  }
  const double requesterSleeps = threadSleeps() - requesterBefore;
  const double dispatcherSlept = dispatcherSleeps() - dispatcherBefore;
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  if (sinks.front().received != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError("an event was not delivered");
  }
  const auto trips = static_cast<double>(state.iterations());
  state.counters["requester_sleeps_per_trip"] = requesterSleeps / trips;
  state.counters["dispatcher_sleeps_per_trip"] = dispatcherSlept / trips;
}
BENCHMARK(BM_SyncPublishRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// subscribe() of a new subscriber to a type that already has subscribers.
void BM_SubscribeRoundTrip(benchmark::State& state) {
  std::deque<Sink> sinks;  // Stable addresses: each one is a subscriber.
  EventMgr* const eventMgr = EventMgr::instance();
  for (auto _ : state) {
    sinks.emplace_back();
    eventMgr->subscribe(PayloadEvent::typeName(), &sinks.back(), &Sink::onPayload);
  }
  runOnDispatcher([&] {
    for (Sink& sink : sinks) {
      manager().removeSubscription(PayloadEvent::typeName(), EventMgr::ClientPtr(new PayloadAdapter(&sink, nullptr)));
    }
  });
}
BENCHMARK(BM_SubscribeRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// --- Delivery and routing on the dispatcher thread ------------------------------

// Delivers `event` `repetitions` times in one trip to the dispatcher thread
// and returns how long the deliveries took there.
BenchClock::duration deliverOnDispatcher(const DefaultEventMgr::EventPtr& event, std::size_t repetitions) {
  BenchClock::duration elapsed{};
  runOnDispatcher([&] {
    DefaultEventMgr& eventMgr = manager();
    const BenchClock::time_point start = BenchClock::now();
    for (std::size_t i = 0; i < repetitions; ++i) {
      eventMgr.deliver(*event);
    }
    elapsed = BenchClock::now() - start;
  });
  return elapsed;
}

// Argument: subscribers of the event's type. Each iteration delivers a batch
// of events to all of them, then the same number of events of a type nobody
// subscribed to. ns_per_subscriber is the difference per subscriber call:
// what one more subscriber adds to a delivery.
void BM_DeliveryPerSubscriber(benchmark::State& state) {
  const auto subscribers = static_cast<std::size_t>(state.range(0));
  const std::size_t repetitions = std::max<std::size_t>(4, 100000 / subscribers);
  std::vector<Sink> sinks(subscribers);
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  const DefaultEventMgr::EventPtr routed(new PayloadEvent(3));
  const DefaultEventMgr::EventPtr unrouted(new ControlEvent);
  double routedNs = 0;
  double unroutedNs = 0;
  for (auto _ : state) {
    BenchClock::duration routedTime{};
    runOnDispatcher([&] {
      DefaultEventMgr& eventMgr = manager();
      const BenchClock::time_point start = BenchClock::now();
      for (std::size_t i = 0; i < repetitions; ++i) {
        eventMgr.deliver(*routed);
      }
      const BenchClock::time_point middle = BenchClock::now();
      for (std::size_t i = 0; i < repetitions; ++i) {
        eventMgr.deliver(*unrouted);
      }
      const BenchClock::time_point end = BenchClock::now();
      routedTime = middle - start;
      unroutedNs += nanoseconds(end - middle);
    });
    routedNs += nanoseconds(routedTime);
    state.SetIterationTime(std::chrono::duration<double>(routedTime).count());
  }
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  const double events = static_cast<double>(repetitions) * static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(events * static_cast<double>(subscribers)));
  state.counters["ns_per_event"] = routedNs / events;
  state.counters["ns_unrouted_event"] = unroutedNs / events;
  state.counters["ns_per_subscriber"] = (routedNs - unroutedNs) / (events * static_cast<double>(subscribers));
}
BENCHMARK(BM_DeliveryPerSubscriber)
    ->ArgName("subscribers")
    ->RangeMultiplier(10)
    ->Range(1, 100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.2)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// Arguments: the kind of subscriber (0: ClientAdapter made by the member
// subscribe of EventMgr, 1: a lambda behind a Subscription handle, 2: a member
// function behind a Subscription handle) and the number of subscribers. Each
// iteration delivers a batch of events to all of them; ns_per_call is the
// time per subscriber call. All kinds call the same Sink::onPayload.
void BM_DeliveryBySubscriberKind(benchmark::State& state) {
  const auto kind = state.range(0);
  const auto subscribers = static_cast<std::size_t>(state.range(1));
  const std::size_t repetitions = std::max<std::size_t>(4, 200000 / subscribers);
  std::vector<Sink> sinks(subscribers);
  std::vector<Subscription> handles;
  for (Sink& sink : sinks) {
    if (kind == 0) {
      manager().subscribe(PayloadEvent::typeName(), &sink, &Sink::onPayload);
    } else if (kind == 1) {
      handles.push_back(vexutil::eventmgr::subscribe([&sink](const PayloadEvent& event) { sink.onPayload(event); }));
    } else {
      handles.push_back(vexutil::eventmgr::subscribe(&sink, &Sink::onPayload));
    }
  }
  const DefaultEventMgr::EventPtr routed(new PayloadEvent(3));
  double totalNs = 0;
  for (auto _ : state) {
    const BenchClock::duration elapsed = deliverOnDispatcher(routed, repetitions);
    totalNs += nanoseconds(elapsed);
    state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
  }
  if (kind == 0) {
    for (Sink& sink : sinks) {
      manager().unSubscribe(PayloadEvent::typeName(), &sink, &Sink::onPayload);
    }
  }
  handles.clear();
  const double calls =
      static_cast<double>(repetitions) * static_cast<double>(state.iterations()) * static_cast<double>(subscribers);
  state.SetItemsProcessed(static_cast<std::int64_t>(calls));
  state.counters["ns_per_call"] = totalNs / calls;
}
BENCHMARK(BM_DeliveryBySubscriberKind)
    ->ArgNames({"kind", "subscribers"})
    ->ArgsProduct({{0, 1, 2}, {1, 100}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.2)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// Argument: type names in the subscription table besides the event's own.
// Each iteration delivers a batch of events that have one subscriber; the
// other names each have a subscriber of their own and are never hit.
void BM_RoutingPerTableSize(benchmark::State& state) {
  const auto names = static_cast<std::size_t>(state.range(0));
  std::vector<std::string> typeNames;
  typeNames.reserve(names);
  for (std::size_t i = 0; i < names; ++i) {
    typeNames.push_back("BenchmarkRoutedType" + std::to_string(i));
  }
  Sink bystander;
  std::vector<Sink> sinks(1);
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  runOnDispatcher([&] {
    for (const std::string& name : typeNames) {
      manager().addSubscription(name, EventMgr::ClientPtr(new ControlAdapter(&bystander, &Sink::onControl)));
    }
  });
  const std::size_t repetitions = 50000;
  const DefaultEventMgr::EventPtr routed(new PayloadEvent(4));
  double totalNs = 0;
  for (auto _ : state) {
    const BenchClock::duration elapsed = deliverOnDispatcher(routed, repetitions);
    totalNs += nanoseconds(elapsed);
    state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
  }
  runOnDispatcher([&] {
    for (const std::string& name : typeNames) {
      manager().removeSubscription(name, EventMgr::ClientPtr(new ControlAdapter(&bystander, nullptr)));
    }
  });
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  const double events = static_cast<double>(repetitions) * static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(events));
  state.counters["ns_per_event"] = totalNs / events;
}
BENCHMARK(BM_RoutingPerTableSize)
    ->ArgName("type_names")
    ->RangeMultiplier(10)
    ->Range(1, 100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.3);

// --- Memory and allocations -------------------------------------------------------

// Heap growth per subscription made through the public subscribe(): adapter,
// its shared count, the set entry, the slot in the delivery array and, with
// argument 1 (each subscriber to a type name of its own), the table entry.
void BM_MemoryPerSubscription(benchmark::State& state) {
  const bool ownTypeEach = state.range(0) != 0;
  const std::size_t subscriptions = 10000;
  std::vector<Sink> sinks(subscriptions);
  std::vector<std::string> typeNames;
  for (std::size_t i = 0; i < subscriptions; ++i) {
    typeNames.push_back(ownTypeEach ? "BenchmarkMemoryType" + std::to_string(i) : PayloadEvent::typeName());
  }
  EventMgr* const eventMgr = EventMgr::instance();
  vexbench::AllocationTotals totals;
  for (auto _ : state) {
    vexbench::startCountingAllocations();
    for (std::size_t i = 0; i < subscriptions; ++i) {
      eventMgr->subscribe(typeNames[i], &sinks[i], &Sink::onPayload);
    }
    // A delivery builds the flat array that deliveries walk; it belongs to
    // the subscriptions' memory. The event itself leaves nothing behind.
    eventMgr->publish(PayloadEvent(8), true);
    totals = vexbench::stopCountingAllocations();
    state.PauseTiming();
    for (std::size_t i = 0; i < subscriptions; ++i) {
      eventMgr->unSubscribe(typeNames[i], &sinks[i], &Sink::onPayload);
    }
    state.ResumeTiming();
  }
  state.counters["bytes_per_subscription"] =
      static_cast<double>(totals.netBytes()) / static_cast<double>(subscriptions);
  state.counters["allocs_per_subscribe_call"] =
      static_cast<double>(totals.allocations) / static_cast<double>(subscriptions);
}
BENCHMARK(BM_MemoryPerSubscription)
    ->ArgName("own_type_each")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Arguments: synchronous (0/1), subscribers. Counts every operator new of the
// process from the first publish to the last delivery.
void BM_AllocationsPerEvent(benchmark::State& state) {
  const bool synchronous = state.range(0) != 0;
  const auto subscribers = static_cast<std::size_t>(state.range(1));
  const std::uint64_t events = synchronous ? 2000 : 20000;
  std::vector<Sink> sinks(subscribers);
  Completion completion;
  sinks.front().completion = &completion;
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  EventMgr* const eventMgr = EventMgr::instance();
  const PayloadEvent event(5);
  vexbench::AllocationTotals totals;
  for (auto _ : state) {
    completion.expect(events);
    vexbench::startCountingAllocations();
    for (std::uint64_t i = 0; i < events; ++i) {
      eventMgr->publish(event, synchronous);
    }
    completion.wait();
    totals = vexbench::stopCountingAllocations();
  }
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  state.counters["allocs_per_event"] = static_cast<double>(totals.allocations) / static_cast<double>(events);
  state.counters["bytes_per_event"] = static_cast<double>(totals.allocatedBytes) / static_cast<double>(events);
}
BENCHMARK(BM_AllocationsPerEvent)
    ->ArgNames({"synchronous", "subscribers"})
    ->ArgsProduct({{0, 1}, {1, 1000}})
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// --- The idle dispatcher -------------------------------------------------------------

// CPU time the process spends while nothing is published, after a burst of
// events: the dispatcher's spin must end and its wait must not poll.
void BM_IdleDispatcherCpu(benchmark::State& state) {
  std::vector<Sink> sinks(1);
  addSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  EventMgr* const eventMgr = EventMgr::instance();
  const PayloadEvent event(6);
  const auto processCpu = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
  };
  double cpuUs = 0;
  double wallUs = 0;
  for (auto _ : state) {
    for (int i = 0; i < 1000; ++i) {
      eventMgr->publish(event, false);
    }
    eventMgr->publish(event, true);
    const double cpuBefore = processCpu();
    const BenchClock::time_point wallBefore = BenchClock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    cpuUs += processCpu() - cpuBefore;
    wallUs += nanoseconds(BenchClock::now() - wallBefore) / 1000.0;
  }
  removeSinks<PayloadAdapter>(sinks, PayloadEvent::typeName(), &Sink::onPayload);
  state.counters["idle_cpu_percent"] = 100.0 * cpuUs / wallUs;
}
BENCHMARK(BM_IdleDispatcherCpu)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- Paced streams: CPU per event and latency ---------------------------------------

// Nanoseconds on `clock`.
std::int64_t clockNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// The q-quantile of `samples`, which it reorders.
double quantile(std::vector<std::int64_t>& samples, double q) {
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(q * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), at, samples.end());
  return static_cast<double>(*at);
}

// Arguments: the gap between two events in microseconds, and the consumer's
// idle spin (1: adaptive, as the manager builds its queue; 0: never, the
// figure to compare with). A publisher thread pushes clones of one event onto
// a dispatch queue, one per gap, for half a second per iteration, and a
// consumer thread takes them as the dispatcher does. The queue is driven
// directly, not through the manager, because the manager always builds the
// adaptive policy and the never-spinning one needs a queue of its own; what
// the manager adds, the delivery, costs the same under both.
//
// The deadlines are absolute, so a late publisher does not lower the rate.
// Gaps shorter than a timed sleep on a virtual machine (a wake-up there takes
// some 20 us) are waited out on the clock, as by a publisher busy with other
// work; longer ones are slept, with the timer slack cut to 1 us so that the
// events do not bunch.
//
// cpu_ns_per_event is the CPU of the whole process, all threads, per event:
// the publisher's wait (a gap's worth at the short gaps, whatever the policy),
// its pushes and its wake-ups of the consumer, and the consumer;
// consumer_cpu_ns_per_event is the consumer thread's share of it. The
// latency runs from just before a push to just after its take.
void BM_PacedStream(benchmark::State& state) {
  using vexutil::eventmgr::DispatchQueue;
  using vexutil::eventmgr::IdleSpin;
  const auto gap = std::chrono::microseconds(state.range(0));
  const bool adaptive = state.range(1) != 0;
  const auto events = static_cast<std::size_t>(std::chrono::milliseconds(500) / gap);
  const bool publisherSleeps = gap >= std::chrono::microseconds(200);
  DispatchQueue queue(adaptive ? IdleSpin::adaptive() : IdleSpin::never());
  const PayloadEvent event(9);
  std::vector<std::int64_t> pushedNs(events);
  std::vector<std::int64_t> latencies;
  std::int64_t processCpuNs = 0;
  std::int64_t consumerCpuNs = 0;
  for (auto _ : state) {
    std::vector<std::int64_t> takenNs(events);
    const std::int64_t cpuBefore = clockNs(CLOCK_PROCESS_CPUTIME_ID);
    const BenchClock::time_point start = BenchClock::now() + gap;
    std::thread consumer([&] {
      const std::int64_t before = clockNs(CLOCK_THREAD_CPUTIME_ID);
      DispatchQueue::Entry entry;
      for (std::size_t taken = 0; taken < events;) {
        if (queue.take(entry, nullptr)) {
          takenNs[taken++] = clockNs(CLOCK_MONOTONIC);
          entry = DispatchQueue::Entry();
        }
      }
      consumerCpuNs += clockNs(CLOCK_THREAD_CPUTIME_ID) - before;
    });
    std::thread publisher([&] {
      prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
      for (std::size_t i = 0; i < events; ++i) {
        const BenchClock::time_point deadline = start + gap * i;
        if (publisherSleeps) {
          std::this_thread::sleep_until(deadline);
        } else {
          while (BenchClock::now() < deadline) {
          }
        }
        pushedNs[i] = clockNs(CLOCK_MONOTONIC);
        queue.push(DispatchQueue::Entry{std::unique_ptr<BaseEvent>(event.clone()), {}}, true);
      }
    });
    publisher.join();
    consumer.join();
    processCpuNs += clockNs(CLOCK_PROCESS_CPUTIME_ID) - cpuBefore;
    for (std::size_t i = 0; i < events; ++i) {
      latencies.push_back(takenNs[i] - pushedNs[i]);
    }
  }
  const auto taken = static_cast<double>(latencies.size());
  state.SetItemsProcessed(static_cast<std::int64_t>(taken));
  state.counters["cpu_ns_per_event"] = static_cast<double>(processCpuNs) / taken;
  state.counters["consumer_cpu_ns_per_event"] = static_cast<double>(consumerCpuNs) / taken;
  state.counters["latency_p50_ns"] = quantile(latencies, 0.5);
  state.counters["latency_p99_ns"] = quantile(latencies, 0.99);
}
BENCHMARK(BM_PacedStream)
    ->ArgNames({"gap_us", "adaptive"})
    ->ArgsProduct({{5, 20, 1000}, {1, 0}})
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
