// SPDX-License-Identifier: MIT
// Randomized concurrent publish/subscribe/unsubscribe/hand-off on one manager, checked exactly: one atomic
// "ticks" counter stamps every subscription change and publish, and the sentinel (the last subscriber of each
// event) stamps each delivery's end. A client MUST get an event once per name subscribed before the publish and
// removed after the delivery, MAY when the spans overlap, else must not. VEXUTIL_STRESS_START=<n> repeats the
// random choices, VEXUTIL_STRESS_SECONDS=<s> sets the length (default 3).
#include <random>

#include "UnitTest.h"

namespace {

constexpr int kWorkers = 8;               // Each changes two clients of its own.
constexpr int kProducers = kWorkers + 1;  // The main thread publishes too, as the last producer.
constexpr int kClients = 2 * kWorkers;    // Then two more, subscribed throughout.
constexpr int kStress = 3;                // Every event carries a channel name and "Stress".
const std::array<std::string, kStress + 1> kNames{"Chan0", "Chan1", "Chan2", "Stress"};
constexpr std::uint64_t kNever = ~std::uint64_t{0};

std::atomic<std::uint64_t> ticks{1};
std::uint64_t tick() { return ticks.fetch_add(1); }
std::uint64_t randomStart = 0;
std::atomic<long> violations{0};
std::atomic<long> handOffsAsked{0};
std::atomic<long> handOffsRun{0};

// A broken guarantee, seen on any thread; the first 20 are shown.
void violation(const std::string& what, int producer, std::uint32_t sequence) {
  if (violations.fetch_add(1) < 20) {
    ADD_FAILURE() << what << ": event " << producer << "/" << sequence << ", VEXUTIL_STRESS_START=" << randomStart;
  }
}

// Carries its channel, who published it as which of theirs, and the client that hands work to the main thread
// (-1: none).
struct StressEvent : BaseEvent {
  StressEvent(int c, int p, std::uint32_t s, int h)
      : BaseEvent(Names{kNames[c], kNames[kStress]}), channel(c), producer(p), handOffTo(h), sequence(s) {}
  StressEvent* clone() const override { return new StressEvent(*this); }
  static const std::string& typeName() { return kNames[kStress]; }
  const int channel, producer, handOffTo;
  const std::uint32_t sequence;
};

// Stamps the end of each event's delivery; each producer's events must arrive once each, in order, without gaps.
struct Sentinel {
  std::vector<std::vector<std::uint64_t>> ends = std::vector<std::vector<std::uint64_t>>(kProducers);
  std::array<std::atomic<std::size_t>, kProducers> delivered{};
  void on(const StressEvent& event) {
    std::vector<std::uint64_t>& mine = ends[event.producer];
    if (event.sequence != mine.size()) {
      violation("sentinel: repeated, out of order or after a gap", event.producer, event.sequence);
    }
    mine.push_back(tick());
    delivered[event.producer].store(mine.size());
  }
} sentinel;

struct Interval {
  std::uint64_t subscribeStart, subscribeDone, removeStart = kNever, removeDone = kNever;
};

// A subscriber changed by one thread only. Its counts are written on the dispatcher thread, its intervals on the
// changing one; both are read after the run.
struct Client {
  std::array<std::atomic<bool>, kStress + 1> reachable{};  // From before subscribe until removal returns.
  std::array<std::vector<Interval>, kStress + 1> intervals;
  std::vector<std::vector<std::uint8_t>> counts = std::vector<std::vector<std::uint8_t>>(kProducers);
  void on(const StressEvent& event);
  EventMgr::ClientPtr proxy() { return EventMgr::ClientPtr(new ClientAdapter<Client, StressEvent>(this, &Client::on)); }
};
std::vector<Client> clients(kClients + 2);

void Client::on(const StressEvent& event) {
  if (!reachable[kStress].load() && !reachable[event.channel].load()) {
    violation("a client got an event after its removal", event.producer, event.sequence);
  }
  std::vector<std::uint8_t>& mine = counts[event.producer];
  mine.resize(std::max<std::size_t>(mine.size(), event.sequence + 1));
  ++mine[event.sequence];
  if (event.handOffTo == this - clients.data()) {
    ++handOffsAsked;
    ToDoAdapter::runOnceOnMainThreadImpl([] { ++handOffsRun; });
  }
}

// Each producer's publishes, indexed by sequence: the tick before the publish, and the channel.
std::vector<std::vector<std::pair<std::uint64_t, int>>> logs(kProducers);

void publish(int producer, int channel, bool synchronous, int handOffTo) {
  const auto sequence = static_cast<std::uint32_t>(logs[producer].size());
  logs[producer].emplace_back(tick(), channel);
  EventMgr::instance()->publish(StressEvent(channel, producer, sequence, handOffTo), synchronous);
  if (synchronous && sentinel.delivered[producer].load() <= sequence) {
    violation("a synchronous publish returned before its delivery", producer, sequence);
  }
}

// Subscribes or removes one name, or a list of up to three with repeats.
void change(Client& client, bool add, std::mt19937_64& random) {
  std::vector<int> changed;  // The names whose state the call changes.
  Names names(random() % 2 == 0 ? 1 : 1 + random() % 3);
  for (std::string& name : names) {
    const auto which = static_cast<int>(random() % kNames.size());
    name = kNames[which];
    const bool subscribed = !client.intervals[which].empty() && client.intervals[which].back().removeDone == kNever;
    if (subscribed != add && std::find(changed.begin(), changed.end(), which) == changed.end()) {
      changed.push_back(which);
      client.reachable[which].store(add || client.reachable[which].load());  // Set before a subscribe starts.
    }
  }
  EventMgr& manager = *EventMgr::instance();
  const std::uint64_t start = tick();
  if (names.size() == 1) {
    add ? manager.subscribe(names[0], client.proxy()) : manager.unSubscribe(names[0], client.proxy());
  } else {
    add ? manager.subscribe(names, client.proxy()) : manager.unSubscribe(names, client.proxy());
  }
  const std::uint64_t done = tick();
  for (const int name : changed) {
    if (add) {
      client.intervals[name].push_back(Interval{start, done});
    } else {
      client.intervals[name].back().removeStart = start;
      client.intervals[name].back().removeDone = done;
      client.reachable[name].store(false);
    }
  }
}

// Adds 1 to `must` when the client must receive the event through the name whose intervals these are, or 1 to
// `may` when it may.
void classify(const std::vector<Interval>& intervals, std::uint64_t publishStart, std::uint64_t deliveryEnd,
              unsigned& must, unsigned& may) {
  auto it = std::lower_bound(intervals.begin(), intervals.end(), publishStart,
                             [](const Interval& interval, std::uint64_t at) { return interval.removeDone < at; });
  bool overlaps = false;
  for (; it != intervals.end() && it->subscribeStart < deliveryEnd; ++it) {
    if (it->subscribeDone < publishStart && deliveryEnd < it->removeStart) {
      ++must;
      return;
    }
    overlaps = true;
  }
  may += overlaps ? 1U : 0U;
}

// The randomized run, in a child of its own.
int randomizedRun() {
  const char* const startText = std::getenv("VEXUTIL_STRESS_START");      // NOLINT(concurrency-mt-unsafe): one thread.
  const char* const secondsText = std::getenv("VEXUTIL_STRESS_SECONDS");  // NOLINT(concurrency-mt-unsafe)
  randomStart =
      startText != nullptr && *startText != '\0' ? std::strtoull(startText, nullptr, 10) : std::random_device()();
  const double seconds = secondsText != nullptr && std::atof(secondsText) > 0 ? std::atof(secondsText) : 3.0;
  std::cout << "[ random   ] VEXUTIL_STRESS_START=" << randomStart << ", " << seconds << " s" << std::endl;

  EventMgr& manager = *EventMgr::instance();
  manager.subscribe("BaseEvent", &sentinel, &Sentinel::on);
  // Two clients subscribed throughout: one plainly to "Stress", one by a combined subscription to channel 1,
  // which holds each event back and, being its trigger too, hands it over at once.
  clients[kClients].reachable[kStress] = true;
  clients[kClients + 1].reachable[1] = true;
  const std::uint64_t before = tick();
  manager.subscribe(kNames[kStress], clients[kClients].proxy());
  manager.subscribe(Names{kNames[1]}, Names{kNames[1]}, clients[kClients + 1].proxy());
  clients[kClients].intervals[kStress].push_back(Interval{before, tick()});
  clients[kClients + 1].intervals[1].push_back(Interval{before, tick()});

  // Workers mostly publish (one in six synchronously), otherwise change one of their two clients.
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers(kWorkers);
  for (int id = 0; id < kWorkers; ++id) {
    workers[id] = std::thread([id, &stop] {
      std::mt19937_64 random(randomStart + 0x9E3779B97F4A7C15ULL * static_cast<std::uint64_t>(id + 1));
      while (!stop.load()) {
        const auto choice = static_cast<int>(random() % 100);
        if (choice < 60) {
          publish(id, static_cast<int>(random() % kStress), choice >= 50,
                  random() % 64 == 0 ? static_cast<int>(random() % kClients) : -1);
        } else {
          change(clients[2 * static_cast<std::size_t>(id) + random() % 2], choice < 80, random);
        }
      }
    });
  }
  // The host's main loop: pump hand-offs, now and then publish synchronously.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (long pumps = 1; std::chrono::steady_clock::now() < deadline; ++pumps) {
    dynamic_cast<ToDoAdapter&>(manager).invokeOnceOnMainThread();
    if (pumps % 256 == 0) {
      publish(kWorkers, static_cast<int>(pumps / 256 % kStress), true, -1);
    }
    std::this_thread::yield();
  }
  stop.store(true);
  for (std::thread& worker : workers) {  // A worker that waits for the dispatcher serves hand-offs itself.
    worker.join();
  }
  drainQueue();

  long published = 0;
  long required = 0;
  for (int id = 0; id < kProducers; ++id) {
    published += static_cast<long>(logs[id].size());
    if (sentinel.ends[id].size() != logs[id].size()) {
      ADD_FAILURE() << "accepted events of producer " << id << " were lost";
      return 1;
    }
    for (std::uint32_t sequence = 0; sequence < logs[id].size(); ++sequence) {
      const auto [start, channel] = logs[id][sequence];
      for (int c = 0; c < kClients + 2; ++c) {
        unsigned must = 0;
        unsigned may = 0;
        classify(clients[c].intervals[channel], start, sentinel.ends[id][sequence], must, may);
        classify(clients[c].intervals[kStress], start, sentinel.ends[id][sequence], must, may);
        const std::vector<std::uint8_t>& counts = clients[c].counts[id];
        const unsigned received = sequence < counts.size() ? counts[sequence] : 0U;
        if (received < must || received > must + may) {
          violation("client " + std::to_string(c) + " got it " + std::to_string(received) + " times, must " +
                        std::to_string(must) + " and may " + std::to_string(may) + " more",
                    id, sequence);
        }
        required += must;
      }
    }
  }
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(handOffsRun.load(), handOffsAsked.load());
  EXPECT_GT(required, 0);
  std::cout << "[ figures  ] events=" << published << " pairs checked=" << published * (kClients + 2)
            << " deliveries required=" << required << " hand-offs=" << handOffsRun.load() << std::endl;
  shutDownManager();
  return 0;
}

// A client that must not be called once its withdrawal has returned; its handler yields, for a shutdown and a
// withdrawal to meet in a longer delivery.
std::atomic<long> lateCalls{0};
struct Withdrawable {
  std::atomic<bool> withdrawn{false};
  void on(const TestEvent& /*event*/) {  // NOLINT(readability-make-member-function-const): a handler is non-const.
    std::this_thread::yield();
    lateCalls += withdrawn.load() ? 1 : 0;
  }
};

// One shutdown round, in a child of its own: four workers use the manager while the main thread shuts it down.
// Until the manager has been shut down, each worker makes a subscription (single names on even workers, combined on
// odd ones) through instance() or the pointer kept from the start, publishes to it asynchronously and
// synchronously, withdraws it and marks the client withdrawn.
int shutdownRound() {
  Counter underWay;
  std::vector<std::thread> workers(4);
  for (int id = 0; id < 4; ++id) {
    workers[id] = std::thread([id, &underWay] {
      EventMgr* const kept = EventMgr::instance();
      std::vector<std::unique_ptr<Withdrawable>> made;  // Kept until the round ends, to catch late calls.
      for (int step = 0; step <= 2 || dynamic_cast<DefaultEventMgr*>(EventMgr::instance()) != nullptr; ++step) {
        EventMgr* const manager = step % 2 == 0 ? EventMgr::instance() : kept;
        made.push_back(std::make_unique<Withdrawable>());
        const EventMgr::ClientPtr proxy(
            new ClientAdapter<Withdrawable, TestEvent>(made.back().get(), &Withdrawable::on));
        if (id % 2 == 0) {
          manager->subscribe("Round", proxy);
          manager->publish(NamedEvent("Round", step), step % 3 == 0);
          manager->unSubscribe("Round", proxy);
        } else {
          manager->subscribe(Names{"Round"}, Names{"Flush"}, proxy);
          manager->publish(NamedEvent("Round", step), false);
          manager->publish(NamedEvent("Flush", step), step % 3 == 0);
          manager->unSubscribe(Names{"Round"}, Names{"Flush"}, proxy);
        }
        made.back()->withdrawn = true;
        underWay.add(step == 2 ? 1 : 0);
      }
    });
  }
  EXPECT_TRUE(underWay.waitFor(4));
  shutDownManager();
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_EQ(lateCalls.load(), 0);
  return 0;
}

}  // namespace

// Eight workers and the main thread share one manager for a few seconds; every delivery is accounted for exactly.
TEST(ReliabilityStress, RandomizedConcurrentUseKeepsEveryGuarantee) {
  EXPECT_EQ(inChild(randomizedRun, std::chrono::minutes(4)), 0);
}

// Shutdown amid every kind of call, round after round: every call returns, no client is called after its withdrawal.
TEST(ReliabilityStress, ShutdownAmidEveryKindOfCallRepeatedly) {
  for (int round = 0; round < VEXUTIL_SHUTDOWN_ROUNDS && !HasFailure(); ++round) {
    EXPECT_EQ(inChild(shutdownRound), 0) << "round " << round;
  }
}
