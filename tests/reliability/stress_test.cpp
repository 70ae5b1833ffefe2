// A randomized, time-bounded stress run of the event manager. Eight worker
// threads at once subscribe and unsubscribe (single names, lists and
// combined two-list subscriptions), publish asynchronously and
// synchronously, and have subscribers hand functions to the main thread,
// which pumps them (or serves them while it waits in a synchronous publish).
//
// The run is randomised: VEXUTIL_STRESS_START=<n> repeats a run's choices (not its
// interleaving), VEXUTIL_STRESS_SECONDS=<s> sets its length (default 3).
// The random start is printed first and with every failure.
//
// The checks are exact. A process-wide counter ("ticks", one atomic
// fetch_add each, so tick order follows happens-before) stamps the start and
// end of every subscription change and the start of every publish; a
// sentinel, the only subscriber of "BaseEvent" and so the last subscriber of
// every event, stamps each event's end of delivery. For a client, a name and
// an event:
//   * the client MUST receive the event once through that name when its
//     subscription returned before the publish started and its removal
//     started after the event's delivery ended;
//   * it MAY receive it once when the subscription's lifetime overlaps the
//     window from publish start to delivery end;
//   * otherwise it must not receive it through that name.
// The number of deliveries of each event to each client must lie between the
// MUST count and the MUST+MAY count of its names. On top of that, inline:
// each producer's events reach each client in order; a client receives
// nothing once every name the event could reach it by has been removed; the
// sentinel sees each producer's events exactly once and without gaps, so
// that published == delivered (nothing may be dropped before shutdown); a
// synchronous publish returns after its own delivery; every hand-off runs
// once, off the dispatcher thread; and a combined subscription hands over
// exactly the held-back events, in order, and nothing after its removal.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Corvane/System/ThreadId.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

using Corvane::System::ThreadId;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::ToDoAdapter;
using namespace vexutil::testing_support;
using Names = std::vector<std::string>;

namespace {

constexpr int kWorkers = 8;
constexpr int kMainProducer = kWorkers;  // The main thread publishes too.
constexpr int kProducers = kWorkers + 1;
constexpr int kClientsPerWorker = 2;
constexpr int kClients = kWorkers * kClientsPerWorker;
// The names a general client may subscribe to: four channels and the name
// every stress event carries.
constexpr int kChannels = 4;
constexpr int kStressName = kChannels;
constexpr int kNames = kChannels + 1;
const std::array<std::string, kNames> kNameText{"Chan0", "Chan1", "Chan2", "Chan3", "Stress"};
// Channel 2 events are held back by the long-lived combined subscription,
// channel 3 events trigger it.
constexpr int kDelayedChannel = 2;
constexpr int kTriggerChannel = 3;
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

std::atomic<std::uint64_t> ticks{1};
std::uint64_t tick() { return ticks.fetch_add(1, std::memory_order_seq_cst); }

// --- Failures --------------------------------------------------------------------

// Violations found on any thread; the main thread reports them.
class Violations {
 public:
  void add(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_++ < 20) {
      first_.push_back(what);
    }
  }
  long count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  std::string summary() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::ostringstream text;
    for (const std::string& line : first_) {
      text << "  " << line << '\n';
    }
    return text.str();
  }

 private:
  mutable std::mutex mutex_;
  long count_ = 0;
  std::vector<std::string> first_;
};
Violations violations;

// --- The event -------------------------------------------------------------------

// Type list: its own name (a channel, or a worker's private name), "Stress",
// "BaseEvent". `channel` is -1 for private names.
class StressEvent : public BaseEvent {
 public:
  StressEvent(const std::string& name, int channel, int producer, std::uint32_t sequence, int handOffTo)
      : BaseEvent(Names{name, kNameText[kStressName]}),
        channel_(channel),
        producer_(producer),
        sequence_(sequence),
        handOffTo_(handOffTo) {}
  StressEvent* clone() const override { return new StressEvent(*this); }
  static const std::string& typeName() { return kNameText[kStressName]; }
  int channel() const { return channel_; }
  int producer() const { return producer_; }
  std::uint32_t sequence() const { return sequence_; }
  int handOffTo() const { return handOffTo_; }
  std::string label() const {
    return "event " + std::to_string(producer_) + "/" + std::to_string(sequence_) + " (" + getTypes().front() + ")";
  }

 private:
  int channel_;
  int producer_;
  std::uint32_t sequence_;
  int handOffTo_;
};

// What a producer knows about each of its events, indexed by sequence.
struct Published {
  std::uint64_t start;  // Tick before the publish call.
  std::int8_t channel;
  bool synchronous;
};

// Per-producer, per-sequence counts, grown on demand; written on the
// dispatcher thread only.
class DeliveryCounts {
 public:
  DeliveryCounts() : counts_(kProducers) {}
  void add(int producer, std::uint32_t sequence) {
    std::vector<std::uint8_t>& mine = counts_[static_cast<std::size_t>(producer)];
    if (mine.size() <= sequence) {
      mine.resize(std::max<std::size_t>(sequence + 1, mine.size() * 2), 0);
    }
    ++mine[sequence];
  }
  unsigned get(int producer, std::uint32_t sequence) const {
    const std::vector<std::uint8_t>& mine = counts_[static_cast<std::size_t>(producer)];
    return sequence < mine.size() ? mine[sequence] : 0U;
  }

 private:
  std::vector<std::vector<std::uint8_t>> counts_;
};

// --- Subscribers -----------------------------------------------------------------

// The only subscriber of "BaseEvent": the last to see every stress event, it
// stamps the end of each delivery and checks that each producer's events
// arrive once each, in order, without gaps.
class Sentinel {
 public:
  Sentinel() : ends_(kProducers) {
    for (std::atomic<std::int64_t>& last : lastSequence_) {
      last.store(-1);
    }
  }
  void on(const StressEvent& event) {
    dispatcher_.store(ThreadId::self());
    const auto producer = static_cast<std::size_t>(event.producer());
    const std::int64_t expected = lastSequence_[producer].load() + 1;
    if (static_cast<std::int64_t>(event.sequence()) != expected) {
      violations.add("sentinel: " + event.label() + " arrived, expected sequence " + std::to_string(expected));
    }
    std::vector<std::uint64_t>& ends = ends_[producer];
    if (ends.size() <= event.sequence()) {
      ends.resize(event.sequence() + 1, 0);
    }
    ends[event.sequence()] = tick();
    ++delivered_;
    lastSequence_[producer].store(event.sequence());
  }
  // After the run (the dispatcher is idle).
  std::uint64_t end(int producer, std::uint32_t sequence) const {
    const std::vector<std::uint64_t>& ends = ends_[static_cast<std::size_t>(producer)];
    return sequence < ends.size() ? ends[sequence] : 0;
  }
  long delivered() const { return delivered_; }
  std::int64_t lastSequence(int producer) const { return lastSequence_[static_cast<std::size_t>(producer)].load(); }
  ThreadId dispatcher() const { return dispatcher_.load(); }

 private:
  std::vector<std::vector<std::uint64_t>> ends_;  // Dispatcher thread.
  std::array<std::atomic<std::int64_t>, kProducers> lastSequence_;
  long delivered_ = 0;  // Dispatcher thread.
  std::atomic<ThreadId> dispatcher_{ThreadId()};
};
Sentinel* sentinel = nullptr;

std::atomic<long> handOffsRequested{0};
std::atomic<long> handOffsRun{0};
std::atomic<long> handOffsOnMain{0};
ThreadId mainThread;

// One interval of a (client, name) subscription, in ticks.
struct Interval {
  std::uint64_t subscribeStart;
  std::uint64_t subscribeDone;
  std::uint64_t removeStart = kNever;
  std::uint64_t removeDone = kNever;
};

// A general client: subscribed and removed by its owning worker only.
class Client {
 public:
  void setIndex(int index) { index_ = index; }
  int index() const { return index_; }

  void on(const StressEvent& event) {
    // Nothing once every name that could carry the event has been removed.
    const bool reachable = subscribed_[kStressName].load() ||
                           (event.channel() >= 0 && subscribed_[static_cast<std::size_t>(event.channel())].load());
    if (!reachable) {
      violations.add("client " + std::to_string(index_) + " received " + event.label() + " after its removal");
    }
    std::int64_t& last = lastSequence_[static_cast<std::size_t>(event.producer())];
    if (static_cast<std::int64_t>(event.sequence()) < last) {
      violations.add("client " + std::to_string(index_) + " received " + event.label() + " after sequence " +
                     std::to_string(last));
    }
    last = event.sequence();
    counts_.add(event.producer(), event.sequence());
    if (event.handOffTo() == index_) {
      ++handOffsRequested;
      ToDoAdapter::runOnceOnMainThreadImpl([] {
        if (sentinel->dispatcher() == ThreadId::self()) {
          violations.add("a hand-off ran on the dispatcher thread");
        }
        if (ThreadId::self() == mainThread) {
          ++handOffsOnMain;
        }
        ++handOffsRun;
      });
    }
  }

  // --- Owner thread --------------------------------------------------------------
  bool isSubscribed(int name) const { return on_[static_cast<std::size_t>(name)]; }
  // Before a subscribe call: the name may be in force from now on.
  void markSubscribing(int name) { subscribed_[static_cast<std::size_t>(name)].store(true); }
  void recordSubscribed(int name, std::uint64_t start, std::uint64_t done) {
    on_[static_cast<std::size_t>(name)] = true;
    intervals_[static_cast<std::size_t>(name)].push_back(Interval{start, done});
  }
  // After a removal returned.
  void recordRemoved(int name, std::uint64_t start, std::uint64_t done) {
    on_[static_cast<std::size_t>(name)] = false;
    Interval& last = intervals_[static_cast<std::size_t>(name)].back();
    last.removeStart = start;
    last.removeDone = done;
    subscribed_[static_cast<std::size_t>(name)].store(false);
  }

  // --- After the run ---------------------------------------------------------------
  const std::vector<Interval>& intervals(int name) const { return intervals_[static_cast<std::size_t>(name)]; }
  unsigned received(int producer, std::uint32_t sequence) const { return counts_.get(producer, sequence); }

 private:
  int index_ = -1;
  std::array<std::atomic<bool>, kNames> subscribed_{};
  std::array<bool, kNames> on_{};
  std::array<std::vector<Interval>, kNames> intervals_;
  std::array<std::int64_t, kProducers> lastSequence_ = [] {
    std::array<std::int64_t, kProducers> initial{};
    initial.fill(-1);
    return initial;
  }();
  DeliveryCounts counts_;
};

// The client of a combined subscription: records what it is handed.
class MailClient {
 public:
  void on(const StressEvent& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(std::make_pair(event.producer(), event.sequence()));
    counts_.add(event.producer(), event.sequence());
  }
  std::vector<std::pair<int, std::uint32_t>> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<int, std::uint32_t>> taken;
    taken.swap(received_);
    return taken;
  }
  unsigned received(int producer, std::uint32_t sequence) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_.get(producer, sequence);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::uint32_t>> received_;
  DeliveryCounts counts_;
};

// --- Workers ---------------------------------------------------------------------

struct Figures {
  long asyncPublishes = 0;
  long syncPublishes = 0;
  long subscribes = 0;
  long listSubscribes = 0;
  long removals = 0;
  long listRemovals = 0;
  long neverSubscribedRemovals = 0;
  long duplicateSubscribes = 0;
  long mailerCycles = 0;
  long operations() const {
    return asyncPublishes + syncPublishes + subscribes + listSubscribes + removals + listRemovals + mailerCycles;
  }
  void add(const Figures& other) {
    asyncPublishes += other.asyncPublishes;
    syncPublishes += other.syncPublishes;
    subscribes += other.subscribes;
    listSubscribes += other.listSubscribes;
    removals += other.removals;
    listRemovals += other.listRemovals;
    neverSubscribedRemovals += other.neverSubscribedRemovals;
    duplicateSubscribes += other.duplicateSubscribes;
    mailerCycles += other.mailerCycles;
  }
};

class Producer {
 public:
  explicit Producer(int id) : id_(id) {}
  // Publishes a channel or private event and records it.
  std::uint32_t publish(const std::string& name, int channel, bool synchronous, int handOffTo) {
    const auto sequence = static_cast<std::uint32_t>(log_.size());
    const std::uint64_t start = tick();
    log_.push_back(Published{start, static_cast<std::int8_t>(channel), synchronous});
    EventMgr::instance()->publish(StressEvent(name, channel, id_, sequence, handOffTo), synchronous);
    if (synchronous && sentinel->lastSequence(id_) < static_cast<std::int64_t>(sequence)) {
      violations.add("a synchronous publish returned before its delivery (producer " + std::to_string(id_) + ")");
    }
    return sequence;
  }
  const std::vector<Published>& log() const { return log_; }
  int id() const { return id_; }

 private:
  int id_;
  std::vector<Published> log_;
};

class Worker {
 public:
  Worker(int id, std::uint64_t randomStart, Client* clients, MailClient* mail)
      : producer_(id), random_(randomStart), clients_(clients), mail_(mail) {
    const std::string suffix = std::to_string(id);
    delayedName_ = "PrivateDelayed" + suffix;
    triggerName_ = "PrivateTrigger" + suffix;
    combinedName_ = "PrivateCombined" + suffix;
  }

  void run(const std::atomic<bool>& stop) {
    EventMgr& manager = *EventMgr::instance();
    int asyncInARow = 0;
    while (!stop.load()) {
      const unsigned choice = pick(100);
      if (choice < 50 && asyncInARow < 32) {
        publishChannel(false);
        ++asyncInARow;
        continue;
      }
      asyncInARow = 0;
      if (choice < 58) {
        publishChannel(true);
      } else if (choice < 68) {
        subscribeOne(manager);
      } else if (choice < 76) {
        subscribeList(manager);
      } else if (choice < 86) {
        removeOne(manager);
      } else if (choice < 94) {
        removeList(manager);
      } else if (choice < 96) {
        mailerCycle(manager);
      } else {
        publishChannel(true);
      }
    }
  }

  const Producer& producer() const { return producer_; }
  const Figures& figures() const { return figures_; }

 private:
  unsigned pick(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  Client& someClient() { return clients_[pick(kClientsPerWorker)]; }

  void publishChannel(bool synchronous) {
    const int channel = static_cast<int>(pick(kChannels));
    const int handOffTo = pick(64) == 0 ? static_cast<int>(pick(kClients)) : -1;
    producer_.publish(kNameText[static_cast<std::size_t>(channel)], channel, synchronous, handOffTo);
    ++(synchronous ? figures_.syncPublishes : figures_.asyncPublishes);
  }

  static EventMgr::ClientPtr proxyFor(Client& client) {
    return EventMgr::ClientPtr(new ClientAdapter<Client, StressEvent>(&client, &Client::on));
  }

  void subscribeOne(EventMgr& manager) {
    Client& client = someClient();
    const int name = static_cast<int>(pick(kNames));
    const bool fresh = !client.isSubscribed(name);
    if (fresh) {
      client.markSubscribing(name);
    } else {
      ++figures_.duplicateSubscribes;
    }
    const std::uint64_t start = tick();
    if (pick(2) == 0) {
      manager.subscribe(kNameText[static_cast<std::size_t>(name)], &client, &Client::on);
    } else {
      manager.subscribe(kNameText[static_cast<std::size_t>(name)], proxyFor(client));
    }
    const std::uint64_t done = tick();
    if (fresh) {
      client.recordSubscribed(name, start, done);
    }
    ++figures_.subscribes;
  }

  // One to three names, repetitions allowed.
  std::vector<int> someNames() {
    std::vector<int> names(1 + pick(3));
    for (int& name : names) {
      name = static_cast<int>(pick(kNames));
    }
    return names;
  }

  void subscribeList(EventMgr& manager) {
    Client& client = someClient();
    const std::vector<int> names = someNames();
    std::vector<int> fresh;
    Names text;
    for (const int name : names) {
      text.push_back(kNameText[static_cast<std::size_t>(name)]);
      if (!client.isSubscribed(name) && std::find(fresh.begin(), fresh.end(), name) == fresh.end()) {
        fresh.push_back(name);
        client.markSubscribing(name);
      }
    }
    if (fresh.size() < names.size()) {
      ++figures_.duplicateSubscribes;
    }
    const std::uint64_t start = tick();
    manager.subscribe(text, proxyFor(client));
    const std::uint64_t done = tick();
    for (const int name : fresh) {
      client.recordSubscribed(name, start, done);
    }
    ++figures_.listSubscribes;
  }

  void removeOne(EventMgr& manager) {
    Client& client = someClient();
    const int name = static_cast<int>(pick(kNames));
    const std::uint64_t start = tick();
    if (pick(2) == 0) {
      manager.unSubscribe(kNameText[static_cast<std::size_t>(name)], &client, &Client::on);
    } else {
      manager.unSubscribe(kNameText[static_cast<std::size_t>(name)], proxyFor(client));
    }
    const std::uint64_t done = tick();
    if (client.isSubscribed(name)) {
      client.recordRemoved(name, start, done);
    } else {
      ++figures_.neverSubscribedRemovals;
    }
    ++figures_.removals;
  }

  void removeList(EventMgr& manager) {
    Client& client = someClient();
    const std::vector<int> names = someNames();
    Names text;
    for (const int name : names) {
      text.push_back(kNameText[static_cast<std::size_t>(name)]);
    }
    const std::uint64_t start = tick();
    manager.unSubscribe(text, proxyFor(client));
    const std::uint64_t done = tick();
    for (const int name : names) {
      if (client.isSubscribed(name)) {
        client.recordRemoved(name, start, done);
      }
    }
    ++figures_.listRemovals;
  }

  // A combined subscription on this worker's private names, which only this
  // worker publishes: exact expectations at every step.
  void mailerCycle(EventMgr& manager) {
    const EventMgr::ClientPtr client(new ClientAdapter<MailClient, StressEvent>(mail_, &MailClient::on));
    const Names delayed{delayedName_, combinedName_};
    const Names trigger{triggerName_, combinedName_};
    manager.subscribe(delayed, trigger, client);
    std::vector<std::pair<int, std::uint32_t>> expected;
    const unsigned held = pick(4);
    for (unsigned i = 0; i < held; ++i) {
      expected.emplace_back(producer_.id(), producer_.publish(delayedName_, -1, false, -1));
    }
    producer_.publish(triggerName_, -1, true, -1);
    expectHandedOver(expected, "the trigger");
    expected.assign(1, std::make_pair(producer_.id(), producer_.publish(combinedName_, -1, true, -1)));
    expectHandedOver(expected, "a combined name");
    manager.unSubscribe(delayed, trigger, client);
    producer_.publish(delayedName_, -1, false, -1);
    producer_.publish(triggerName_, -1, true, -1);
    expectHandedOver({}, "the removal");
    figures_.asyncPublishes += held + 1;
    figures_.syncPublishes += 3;
    ++figures_.mailerCycles;
  }

  void expectHandedOver(const std::vector<std::pair<int, std::uint32_t>>& expected, const char* after) {
    const std::vector<std::pair<int, std::uint32_t>> received = mail_->take();
    if (received != expected) {
      violations.add("worker " + std::to_string(producer_.id()) + ": combined subscription handed over " +
                     std::to_string(received.size()) + " events after " + after + ", expected " +
                     std::to_string(expected.size()));
    }
  }

  Producer producer_;
  std::mt19937_64 random_;
  Client* clients_;
  MailClient* mail_;
  std::string delayedName_;
  std::string triggerName_;
  std::string combinedName_;
  Figures figures_;
};

// MUST (2), MAY (1) or NONE (0) for one name's intervals and one event.
int classify(const std::vector<Interval>& intervals, std::uint64_t publishStart, std::uint64_t deliveryEnd) {
  // Intervals follow one another; the first that can overlap is the first
  // whose removal ended after the publish started.
  auto it = std::lower_bound(intervals.begin(), intervals.end(), publishStart,
                             [](const Interval& interval, std::uint64_t at) { return interval.removeDone < at; });
  int result = 0;
  for (; it != intervals.end() && it->subscribeStart < deliveryEnd; ++it) {
    if (it->subscribeDone < publishStart && deliveryEnd < it->removeStart) {
      return 2;
    }
    result = 1;
  }
  return result;
}

std::uint64_t randomStartFromEnvironment() {
  const char* text = std::getenv("VEXUTIL_STRESS_START");
  if (text != nullptr && *text != '\0') {
    return std::strtoull(text, nullptr, 10);
  }
  std::random_device device;
  return (static_cast<std::uint64_t>(device()) << 32) ^ device();
}

double secondsFromEnvironment() {
  const char* text = std::getenv("VEXUTIL_STRESS_SECONDS");
  if (text != nullptr && *text != '\0') {
    const double seconds = std::strtod(text, nullptr);
    if (seconds > 0) {
      return seconds;
    }
  }
  return 3.0;
}

}  // namespace

// Eight workers and the main thread hammer one manager for a few seconds;
// afterwards every delivery is accounted for exactly (see the file comment).
TEST(ReliabilityStress, RandomizedConcurrentUseKeepsEveryGuarantee) {
  const std::uint64_t randomStart = randomStartFromEnvironment();
  const double seconds = secondsFromEnvironment();
  std::cout << "[ random   ] VEXUTIL_STRESS_START=" << randomStart << " VEXUTIL_STRESS_SECONDS=" << seconds << std::endl;
  SCOPED_TRACE("rerun with VEXUTIL_STRESS_START=" + std::to_string(randomStart));
  mainThread = ThreadId::self();

  // Every subscriber outlives the manager: shut down before they go.
  Sentinel theSentinel;
  sentinel = &theSentinel;
  std::vector<Client> clients(kClients);
  for (int i = 0; i < kClients; ++i) {
    clients[static_cast<std::size_t>(i)].setIndex(i);
  }
  std::vector<MailClient> mailClients(kWorkers);
  MailClient longMail;

  EventMgr& manager = *EventMgr::instance();
  const ToDoAdapter& pump = dynamic_cast<const ToDoAdapter&>(manager);
  manager.subscribe("BaseEvent", &theSentinel, &Sentinel::on);
  const EventMgr::ClientPtr longMailClient(new ClientAdapter<MailClient, StressEvent>(&longMail, &MailClient::on));
  manager.subscribe(Names{kNameText[kDelayedChannel]}, Names{kNameText[kTriggerChannel]}, longMailClient);

  std::vector<Worker> workers;
  workers.reserve(kWorkers);
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back(w, randomStart + 0x9E3779B97F4A7C15ULL * static_cast<std::uint64_t>(w + 1),
                         &clients[static_cast<std::size_t>(w * kClientsPerWorker)],
                         &mailClients[static_cast<std::size_t>(w)]);
  }
  Producer mainProducer(kMainProducer);
  std::mt19937_64 mainRandom(randomStart);

  std::atomic<bool> stop{false};
  Gate start;
  Counter finished;
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&worker, &stop, &start, &finished] {
      EXPECT_TRUE(start.wait());
      worker.run(stop);
      finished.add();
    });
  }
  // The main thread: the host's main loop. It pumps hand-offs and now and
  // then publishes synchronously (and serves hand-offs while it waits).
  const auto startTime = std::chrono::steady_clock::now();
  const auto deadline = startTime + std::chrono::duration<double>(seconds);
  start.open();
  long pumps = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    pump.invokeOnceOnMainThread();
    ++pumps;
    if (pumps % 256 == 0) {
      const int channel = static_cast<int>(mainRandom() % kChannels);
      mainProducer.publish(kNameText[static_cast<std::size_t>(channel)], channel, true, -1);
    }
    std::this_thread::yield();
  }
  stop.store(true);
  // Keep serving hand-offs until every worker is out of its last request.
  const auto patience = std::chrono::steady_clock::now() + kPatience;
  while (finished.value() < static_cast<std::size_t>(kWorkers) && std::chrono::steady_clock::now() < patience) {
    pump.invokeOnceOnMainThread();
    std::this_thread::yield();
  }
  ASSERT_EQ(finished.value(), static_cast<std::size_t>(kWorkers)) << "workers hang";
  for (std::thread& thread : threads) {
    thread.join();
  }
  const double runSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime).count();
  // The last trigger hands over every event the long-lived combined
  // subscription still holds; then everything has been delivered.
  mainProducer.publish(kNameText[kTriggerChannel], kTriggerChannel, true, -1);
  drainQueue();

  // --- Accounting ------------------------------------------------------------------
  std::vector<const Producer*> producers;
  for (const Worker& worker : workers) {
    producers.push_back(&worker.producer());
  }
  producers.push_back(&mainProducer);
  long published = 0;
  for (const Producer* producer : producers) {
    published += static_cast<long>(producer->log().size());
    EXPECT_EQ(theSentinel.lastSequence(producer->id()), static_cast<std::int64_t>(producer->log().size()) - 1)
        << "producer " << producer->id();
  }
  // Nothing may be dropped before shutdown.
  EXPECT_EQ(theSentinel.delivered(), published);
  EXPECT_EQ(handOffsRun.load(), handOffsRequested.load());

  long checked = 0;
  long mustDeliveries = 0;
  long deliveries = 0;
  long longMailHandedOver = 0;
  for (const Producer* producer : producers) {
    const std::vector<Published>& log = producer->log();
    for (std::uint32_t sequence = 0; sequence < log.size(); ++sequence) {
      const Published& event = log[sequence];
      const std::uint64_t end = theSentinel.end(producer->id(), sequence);
      const std::string label = "event " + std::to_string(producer->id()) + "/" + std::to_string(sequence);
      for (const Client& client : clients) {
        unsigned must = 0;
        unsigned may = 0;
        for (const int name : {static_cast<int>(event.channel), kStressName}) {
          if (name < 0) {
            continue;
          }
          const int verdict = classify(client.intervals(name), event.start, end);
          must += verdict == 2 ? 1U : 0U;
          may += verdict == 1 ? 1U : 0U;
        }
        const unsigned received = client.received(producer->id(), sequence);
        if (received < must || received > must + may) {
          violations.add("client " + std::to_string(client.index()) + " received " + label + " " +
                         std::to_string(received) + " times; must " + std::to_string(must) + ", may " +
                         std::to_string(may) + " more");
        }
        mustDeliveries += must;
        deliveries += received;
        ++checked;
      }
      // The long-lived combined subscription: every channel 2 event once.
      const unsigned handedOver = longMail.received(producer->id(), sequence);
      const unsigned wanted = event.channel == kDelayedChannel ? 1U : 0U;
      if (handedOver != wanted) {
        violations.add("the long-lived combined subscription handed over " + label + " " +
                       std::to_string(handedOver) + " times");
      }
      longMailHandedOver += handedOver;
    }
  }
  // Its order: each producer's events in sequence.
  {
    std::vector<std::int64_t> last(kProducers, -1);
    for (const auto& entry : longMail.take()) {
      std::int64_t& previous = last[static_cast<std::size_t>(entry.first)];
      if (static_cast<std::int64_t>(entry.second) <= previous) {
        violations.add("the long-lived combined subscription handed over producer " + std::to_string(entry.first) +
                       "'s events out of order");
      }
      previous = entry.second;
    }
  }
  EXPECT_EQ(violations.count(), 0) << violations.summary();

  Figures total;
  long intervals = 0;
  for (const Worker& worker : workers) {
    total.add(worker.figures());
  }
  for (const Client& client : clients) {
    for (int name = 0; name < kNames; ++name) {
      intervals += static_cast<long>(client.intervals(name).size());
    }
  }
  std::cout << "[ figures  ] threads=" << kWorkers << " workers + main, run " << runSeconds << " s, "
            << total.operations() + static_cast<long>(mainProducer.log().size()) << " operations: "
            << total.asyncPublishes << " async + " << total.syncPublishes + static_cast<long>(mainProducer.log().size())
            << " sync publishes, " << total.subscribes << " subscribes + " << total.listSubscribes
            << " list subscribes (" << total.duplicateSubscribes << " with duplicates), " << total.removals
            << " removals + " << total.listRemovals << " list removals (" << total.neverSubscribedRemovals
            << " of nothing), " << total.mailerCycles << " combined-subscription cycles\n"
            << "[ figures  ] events published=" << published << " delivered to sentinel=" << theSentinel.delivered()
            << ", client deliveries=" << deliveries << " (" << mustDeliveries << " required), subscription intervals="
            << intervals << ", client/event pairs checked=" << checked << ", held back and handed over="
            << longMailHandedOver << ", hand-offs=" << handOffsRun.load() << " (" << handOffsOnMain.load()
            << " on the main thread), main-loop pumps=" << pumps << std::endl;
  // Sanity of the run itself: it did exercise what it claims to.
  EXPECT_GT(total.asyncPublishes, 0);
  EXPECT_GT(total.syncPublishes, 0);
  EXPECT_GT(total.listRemovals, 0);
  EXPECT_GT(total.mailerCycles, 0);
  EXPECT_GT(mustDeliveries, 0);

  manager.unSubscribe(Names{kNameText[kDelayedChannel]}, Names{kNameText[kTriggerChannel]}, longMailClient);
  shutDownManager();
  sentinel = nullptr;
}
