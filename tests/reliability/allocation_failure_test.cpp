// SPDX-License-Identifier: MIT
// Allocation 1, 2, 3, ... of each public operation fails in turn (on the caller, and on the dispatcher where it
// works) until the operation completes: each call completes or throws std::bad_alloc with no effect beyond its
// documented partial outcome, nothing accepted is lost or doubled, the manager still delivers, no thread or leak
// (LeakSanitizer) is left. Each operation is a test, so a process, of its own; each attempt runs in a forked
// child with a manager of its own, which the parent never makes.
#include <pthread.h>

#include <future>

#include "FailingAllocation.h"
#include "UnitTest.h"

namespace {

constexpr unsigned long kMostAllocations = 400;  // An operation that needs more never completes here.
const Names kList{"A", "B", "C"};
const Names kDelayed{"D1", "D2"};
const Names kTrigger{"T"};  // A combined subscription of kDelayed and kTrigger subscribes three names.

// Counts deliveries per payload and allocates nothing: whatever the dispatcher allocates is the library's.
struct Sink {
  std::array<std::atomic<int>, 8192> got{};
  void on(const TestEvent& event) { got.at(static_cast<std::size_t>(event.payload())).fetch_add(1); }
  int count(int payload) const { return got.at(static_cast<std::size_t>(payload)).load(); }
  EventMgr::ClientPtr proxy() { return EventMgr::ClientPtr(new ClientAdapter<Sink, TestEvent>(this, &Sink::on)); }
};

// Subscribed to "Arm": arms the failure on the thread it runs on, the dispatcher.
std::atomic<unsigned long> armAt{0};
struct Armer {
  void on(const TestEvent& /*event*/) { failNthAllocation(pthread_self(), armAt.load()); }
};

// Contexts count themselves; saving and restoring each allocate.
std::atomic<long> liveContexts{0};
struct Context : ContextBase {
  Context() { ++liveContexts; }
  Context(const Context& /*other*/) : ContextBase() { ++liveContexts; }  // NOLINT(readability-redundant-member-init)
  ~Context() override { --liveContexts; }
  void save() override { saved = std::make_unique<int>(1); }
  void restore() override { restored = std::make_unique<int>(saved ? *saved : 0); }
  std::unique_ptr<int> saved;
  std::unique_ptr<int> restored;
};
struct Factory : ContextFactoryBase {
  ContextBase* create() override { return new Context; }
  void destroy(ContextBase* context) override { delete context; }
  ContextBase* clone(const ContextBase* context) override { return new Context(*static_cast<const Context*>(context)); }
};
ContextRegistry& registry() { return *ContextRegistry::getInstance(); }
Factory factories[3];  // [0] and [1] registered for the life of the process; [2] by the registerFactory case.
[[maybe_unused]] const bool registered =
    (registry().registerFactory(&factories[0]), registry().registerFactory(&factories[1]), true);

// How many entries from the front have `member` set; none after them may.
std::size_t setPrefix(const ContextRegistry::ContextVector& set, std::unique_ptr<int> Context::*member) {
  const auto done = [member](ContextBase* entry) { return static_cast<Context*>(entry)->*member != nullptr; };
  EXPECT_TRUE(std::is_partitioned(set.begin(), set.end(), done)) << "an entry is done, an earlier one is not";
  return static_cast<std::size_t>(std::partition_point(set.begin(), set.end(), done) - set.begin());
}

std::size_t taskCount() {  // Threads of the process.
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

EventMgr& manager() { return *EventMgr::instance(); }

enum Role { kUses, kMakes, kEnds };  // What the operation does to the manager.

struct World;
// One operation, named as its cases are in ctest: what it needs first, the call itself (through World::failing), and
// the check of its outcome, which also undoes it.
struct Operation {
  const char* name;
  bool dispatcherWork;  // Also injected on the dispatcher thread.
  Role role;
  std::function<void(World&)> run;
};

// One operation with its allocations failing on the caller's thread, or on the dispatcher's; the label names the
// case in one ctest word, "subscribe_list_dispatcher".
struct Case {
  const Operation* operation;
  bool onDispatcher;
  std::string label;
};
// Everything an attempt works with; the operation's client is `target`.
struct World {
  explicit World(const Case& c) : test(c) {}
  const Case& test;
  Sink sink;  // Subscribed to "Probe", "Before" and "Pub" before any operation.
  Sink target;
  Sink other;
  Armer armer;
  EventMgr::ClientPtr client;
  ContextRegistry::ContextVector set;
  ContextRegistry::ContextVector copies;
  std::vector<int> before;  // Accepted just before the call: each must arrive once.
  int payload = 0;
  unsigned baseline = 0;  // Subscriptions with the target subscribed nowhere.
  bool fired = false;

  int next() { return ++payload; }
  // Runs `job` on a caller thread of its own and waits for it, at most kPatience. A caller that does not
  // come back cannot be joined, nor can the process exit normally with it: the attempt fails and ends here.
  void call(const std::function<void()>& job) {
    std::future<void> done = std::async(std::launch::async, job);
    if (done.wait_for(kPatience) != std::future_status::ready) {
      ADD_FAILURE() << "the caller did not come back within kPatience";
      std::fflush(stdout);
      std::_Exit(EXIT_FAILURE);
    }
    done.get();
  }
  // The call under test, with allocation armAt failing on its thread or the dispatcher: true if it threw
  // std::bad_alloc. An operation that uses the manager has two events published asynchronously first.
  bool failing(const std::function<void()>& job) {
    for (int i = 0; i < 2 && test.operation->role == kUses; ++i) {
      before.push_back(next());
      publish("Before", before.back(), false);
    }
    bool threw = false;  // Anything else thrown ends the child abnormally, which the parent reports.
    call([&] {
      test.onDispatcher ? manager().publish(NamedEvent("Arm", next()), true) : failNthAllocation(pthread_self(), armAt);
      try {
        job();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      fired = disarmAllocationFailure();
    });
    EXPECT_TRUE(fired || !threw) << "threw without a failing allocation";
    return threw;
  }
  void publish(const std::string& type, int number, bool synchronous) {
    call([&] { manager().publish(NamedEvent(type, number), synchronous); });
  }
  int deliveredTo(const Sink& to, const std::string& type) {
    const int number = next();
    publish(type, number, true);
    return to.count(number);
  }
  // Holds a "D1" event back and triggers: how often the combined subscription hands it to the target.
  int handedOver() {
    const int number = next();
    publish("D1", number, true);
    publish("T", next(), true);
    return target.count(number);
  }
  unsigned subscriptions() { return manager().getSubscriptionCount(); }
  void establish() {
    call([this] {
      manager().subscribe(Names{"Probe", "Before", "Pub"}, sink.proxy());
      manager().subscribe("Arm", &armer, &Armer::on);
    });
    baseline = subscriptions();
  }
};

void subscribeName(World& w) { manager().subscribe("A", w.client); }
void subscribeList(World& w) { manager().subscribe(kList, w.client); }
void subscribeCombined(World& w) { manager().subscribe(kDelayed, kTrigger, w.client); }
void unSubscribeName(World& w) { manager().unSubscribe("A", w.client); }
void unSubscribeList(World& w) { manager().unSubscribe(kList, w.client); }
void unSubscribeCombined(World& w) { manager().unSubscribe(kDelayed, kTrigger, w.client); }
void undo(World& w, void (*step)(World&)) {
  w.call([&] { step(w); });
}
// A fresh proxy of the target, subscribed with `prior` (not failing) if given, then `step`, failing: true if it
// threw.
bool changeTarget(World& w, void (*step)(World&), void (*prior)(World&) = nullptr) {
  w.client = w.target.proxy();
  if (prior != nullptr) {
    undo(w, prior);
  }
  return w.failing([&] { step(w); });
}
// Whether the target's subscription to "A" (or the combined one) is in force: its subscriptions, checked before
// anything is published (which could reach one that outlived its subscriber), the mailer, an event handed to the
// target. The subscription is then withdrawn (not after a wrong count: the attempt has failed and ends).
void expectSubscription(World& w, bool combined, bool inForce) {
  const unsigned added = inForce ? (combined ? 3 : 1) : 0;
  ASSERT_EQ(w.subscriptions(), w.baseline + added);
  EXPECT_EQ(defaultManager().getMailerCount(), combined && inForce ? 1U : 0U);
  EXPECT_EQ(combined ? w.handedOver() : w.deliveredTo(w.target, "A"), inForce ? 1 : 0);
  undo(w, combined ? unSubscribeCombined : unSubscribeName);
}
// All of kList reaches the target once (`reached`), or none does, when the call `completed`; otherwise names from
// the front of the list may have been done and the rest not, never otherwise. The list is then withdrawn.
void expectList(World& w, bool reached, bool completed) {
  const unsigned added = w.subscriptions() - w.baseline;
  std::size_t run = 0;
  for (std::size_t i = 0; i < kList.size() && added <= kList.size(); ++i) {
    const bool got = w.deliveredTo(w.target, kList[i]) == 1;
    run += got == reached && run == i ? 1 : 0;
    EXPECT_EQ(got, run > i ? reached : !reached) << kList[i] << ": the names done are not a prefix of the list";
  }
  EXPECT_EQ(added, reached ? run : kList.size() - run);
  EXPECT_EQ(run == kList.size(), completed);
  undo(w, unSubscribeList);
}
// The contexts made before a failure stay in the sets and none is lost. All then go back.
void expectContexts(World& w, std::size_t made, bool threw) {
  EXPECT_EQ(liveContexts.load(), static_cast<long>(w.set.size() + w.copies.size()));
  EXPECT_EQ(made < registry().getFactoryCount(), threw);
  registry().destroy(w.copies);
  registry().destroy(w.set);
}

Operation publishing(const char* name, bool synchronous) {
  return {name, synchronous, kUses, [synchronous](World& w) {
            w.call([&] { manager().subscribe("Pub", w.other.proxy()); });  // "Pub" changed since its last delivery.
            const NamedEvent event("Pub", w.next());
            const bool threw = w.failing([&] { manager().publish(event, synchronous); });
            w.call([] { drainQueue(); });
            EXPECT_EQ(w.sink.count(event.payload()), threw ? 0 : 1);
            EXPECT_EQ(w.other.count(event.payload()), threw ? 0 : 1);
            w.call([&] { manager().unSubscribe("Pub", w.other.proxy()); });
          }};
}
Operation makingEvent(const char* name, InputRequestEvent* (*make)(const InputRequestEvent&)) {
  return {name, false, kUses, [make](World& w) {
            const InputRequestEvent original{1, 2, 3, true};
            std::unique_ptr<InputRequestEvent> made;
            const bool threw = w.failing([&] { made.reset(make(original)); });
            ASSERT_EQ(made == nullptr, threw);
            if (made) {
              EXPECT_EQ(made->getTypes(), (Names{"InputRequestEvent", "BaseEvent"}));
              EXPECT_TRUE(made->getCombinedStatus() == 0x00020301 && made->getFlag());
            }
          }};
}
// Makes a set, or also saves it, then `step` on it, failing; then the prefix of the set that `member` marks done.
Operation onContexts(const char* name, bool save, void (*step)(ContextRegistry::ContextVector&),
                     std::unique_ptr<int> Context::*member) {
  return {name, false, kUses, [save, step, member](World& w) {
            registry().create(w.set);
            if (save) {
              registry().save(w.set);
            }
            const bool threw = w.failing([&] { step(w.set); });
            expectContexts(w, setPrefix(w.set, member), threw);
          }};
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> all{
      publishing("publish_async", false),
      publishing("publish_sync", true),
      {"subscribe_name", true, kUses, [](World& w) { expectSubscription(w, false, !changeTarget(w, subscribeName)); }},
      {"subscribe_list", true, kUses, [](World& w) { expectList(w, true, !changeTarget(w, subscribeList)); }},
      {"subscribe_combined", true, kUses,
       [](World& w) { expectSubscription(w, true, !changeTarget(w, subscribeCombined)); }},
      // Exactly one combined subscription, whatever the second call did.
      {"subscribe_combined_again", true, kUses,
       [](World& w) {
         changeTarget(w, subscribeCombined, subscribeCombined);
         expectSubscription(w, true, true);
       }},
      {"unSubscribe_name", true, kUses,
       [](World& w) { expectSubscription(w, false, changeTarget(w, unSubscribeName, subscribeName)); }},
      {"unSubscribe_list", true, kUses,
       [](World& w) { expectList(w, false, !changeTarget(w, unSubscribeList, subscribeList)); }},
      {"unSubscribe_combined", true, kUses,
       [](World& w) { expectSubscription(w, true, changeTarget(w, unSubscribeCombined, subscribeCombined)); }},
      // After a failure, the next call tries again.
      {"instance_making_the_manager", false, kMakes,
       [](World& w) {
         w.failing([] { EventMgr::instance(); });
         bool working = false;
         w.call([&] { working = dynamic_cast<DefaultEventMgr*>(EventMgr::instance()) != nullptr; });
         EXPECT_TRUE(working);
         w.establish();
       }},
      // Never fails: whichever allocation fails, the dispatcher is joined and instance() is the no-op manager.
      {"shutDown", false, kEnds,
       [](World& w) {
         const std::size_t threadsBefore = taskCount();
         EXPECT_FALSE(w.failing(shutDownManager));
         EXPECT_EQ(dynamic_cast<DefaultEventMgr*>(EventMgr::instance()), nullptr);
         EXPECT_TRUE(eventually([&] { return taskCount() == threadsBefore - 1; })) << "the dispatcher is left";
       }},
      {"registerFactory_12_in_a_row", false, kUses,
       [](World& w) {
         const std::size_t before = registry().getFactoryCount();
         std::size_t added = 0;
         const bool threw = w.failing([&] {
           for (; added < 12; ++added) {
             registry().registerFactory(&factories[2]);
           }
         });
         EXPECT_EQ(registry().getFactoryCount(), before + added);
         EXPECT_EQ(added < 12, threw);
       }},
      {"ContextRegistry_create", false, kUses,
       [](World& w) {
         const bool threw = w.failing([&] { registry().create(w.set); });
         expectContexts(w, w.set.size(), threw);
       }},
      {"ContextRegistry_destroy", false, kUses,
       [](World& w) {
         registry().create(w.set);
         const bool threw = w.failing([&] { registry().destroy(w.set); });
         EXPECT_EQ(w.set.size(), threw ? registry().getFactoryCount() : 0U);
         expectContexts(w, registry().getFactoryCount(), false);
       }},
      onContexts(
          "ContextRegistry_save", false, [](auto& set) { registry().save(set); }, &Context::saved),
      onContexts(
          "ContextRegistry_restore", true, [](auto& set) { registry().restore(set); }, &Context::restored),
      {"ContextRegistry_clone", false, kUses,
       [](World& w) {
         registry().create(w.set);
         const bool threw = w.failing([&] { registry().clone(w.copies, w.set); });
         expectContexts(w, w.copies.size(), threw);
       }},
      makingEvent("InputRequestEvent_values",
                  [](const InputRequestEvent&) { return new InputRequestEvent(1, 2, 3, true); }),
      makingEvent("InputRequestEvent_copy", [](const InputRequestEvent& e) { return new InputRequestEvent(e); }),
      makingEvent("InputRequestEvent_clone", [](const InputRequestEvent& e) { return e.clone(); }),
  };
  return all;
}

std::vector<Case> cases() {
  std::vector<Case> all;
  for (const Operation& operation : operations()) {
    for (const bool onDispatcher : {false, true}) {
      if (!onDispatcher || operation.dispatcherWork) {
        all.push_back(
            {&operation, onDispatcher, operation.name + std::string(onDispatcher ? "_dispatcher" : "_caller")});
      }
    }
  }
  return all;
}

constexpr int kFired = 2;  // A child's exit status: the armed allocation failed, and the attempt was survived.

// One attempt, in a child of its own: allocation `n` of the operation fails. Returns kFired, or 0 if the
// operation completed before its nth allocation.
int attempt(const Case& c, unsigned long n) {
  bool fired = false;
  {
    armAt = n;
    World w(c);
    // This thread, a second one in the dispatcher's place, and any that a sanitizer runtime starts with the
    // first thread (ThreadSanitizer does).
    std::size_t threads = 0;
    std::thread([&threads] { threads = taskCount(); }).join();
    if (c.operation->role != kMakes) {
      w.establish();
    }
    c.operation->run(w);
    if (c.operation->role != kEnds) {
      EXPECT_EQ(w.subscriptions(), w.baseline) << "a subscription is left over, or one made before is gone";
      EXPECT_EQ(w.deliveredTo(w.sink, "Probe"), 1) << "the manager no longer delivers exactly once";
      for (const int number : w.before) {
        EXPECT_EQ(w.sink.count(number), 1) << "an event published before the call";
      }
      EXPECT_TRUE(eventually([&] { return taskCount() == threads; })) << "a thread is left behind";
    }
    shutDownManager();  // Before the world goes: the manager holds its subscribers.
    fired = w.fired;
  }
  EXPECT_EQ(liveContexts.load(), 0);
  return fired ? kFired : 0;
}

class AllocationFailure : public ::testing::TestWithParam<Case> {};

}  // namespace

// Every allocation of the operation, failing in turn, is thrown out or absorbed, loses nothing and stops nothing.
TEST_P(AllocationFailure, ThrowsOrCompletes) {
  const Case& c = GetParam();
  unsigned long survived = 0;
  int status = kFired;
  for (unsigned long n = 1; n <= kMostAllocations && status == kFired; ++n) {
    status = inChild([&] { return attempt(c, n); });
    EXPECT_TRUE(status == 0 || status == kFired) << c.label << ", allocation " << n << " failing: exit " << status;
    survived += status == kFired ? 1 : 0;
  }
  EXPECT_NE(status, kFired) << "not completed within " << kMostAllocations << " allocations";
  std::printf("[ figures  ] allocation failures survived: %s=%lu%s\n", c.label.c_str(), survived,
              status == 0 ? "" : " (stopped at a failure)");
}

INSTANTIATE_TEST_SUITE_P(Each, AllocationFailure, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<Case>& param) { return param.param.label; });
