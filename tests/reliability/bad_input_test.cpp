// Bad input through the public interface: null and inert subscribers, empty
// and odd names and lists, odd event type lists, null context entries, empty
// hand-offs and every call after shutdown. Each must be harmless: no crash,
// no hang, and nothing that was already accepted gets lost.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "DefaultEventMgr.h"
#include "Instance.h"
#include "TestSupport.h"
#include "vexutil/contextmgr/ContextRegistry.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ProxyMailer.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

using vexutil::contextmgr::ContextBase;
using vexutil::contextmgr::ContextFactoryBase;
using vexutil::contextmgr::ContextRegistry;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::ProxyMailer;
using vexutil::eventmgr::ToDoAdapter;
using namespace vexutil::testing_support;
using Names = std::vector<std::string>;

namespace {

// A TestEvent whose most derived names are whatever the test says.
class NamedTestEvent : public TestEvent {
 public:
  NamedTestEvent(Names names, int payload) : TestEvent(std::move(names), payload) {}
  NamedTestEvent* clone() const override { return new NamedTestEvent(*this); }
};

EventMgr::ClientPtr proxyFor(Recorder& recorder) {
  return EventMgr::ClientPtr(new ClientAdapter<Recorder, TestEvent>(&recorder, &Recorder::onTest));
}

bool slotIsEmpty() {
  boost::recursive_mutex::scoped_lock lock(ToDoAdapter::toDoMutex_);
  return ToDoAdapter::toDoFunc_.empty();
}

}  // namespace

// List forms skip empty names and null clients, and removing unknown or
// never-subscribed names (also overtaking queued events) disturbs nothing
// that was accepted: the queued events still arrive, in order.
TEST(ReliabilityBadInput, ListFormsSkipEmptyNamesAndNullClients) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  const EventMgr::ClientPtr client = proxyFor(recorder);
  manager.subscribe(Names{"", "A", "", "B", "A"}, client);
  EXPECT_EQ(manager.getSubscriptionCount(), 2U);
  manager.subscribe(Names{}, client);
  manager.subscribe(Names{"C", "D"}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{"A", "B"}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{}, client);
  EXPECT_EQ(manager.getSubscriptionCount(), 2U);

  // Hold the dispatcher, queue accepted events, then send removals that
  // match nothing; they jump the queue and must leave the events alone.
  Gate holding;
  Gate release;
  Recorder blocker;
  blocker.setAction([&](const BaseEvent&) {
    holding.open();
    EXPECT_TRUE(release.wait());
  });
  manager.subscribe("Hold", &blocker, &Recorder::onBase);
  manager.publish(NamedTestEvent(Names{"Hold"}, 0), false);
  ASSERT_TRUE(holding.wait());
  for (int i = 1; i <= 4; ++i) {
    manager.publish(NamedTestEvent(Names{i % 2 == 0 ? "A" : "B"}, i), false);
  }
  Recorder stranger;
  std::thread remover([&] {
    manager.unSubscribe(Names{"", "Unknown", "A", "B"}, proxyFor(stranger));  // Never subscribed.
    manager.unSubscribe("A", &stranger, &Recorder::onTest);
  });
  // Both removals wait at the front of the queue, ahead of the four events.
  while (manager.getPendingEventCount() < 5) {
    std::this_thread::yield();
  }
  release.open();
  remover.join();
  drainQueue();
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(stranger.count(), 0U);

  manager.unSubscribe(Names{"", "Unknown", "A"}, client);
  manager.publish(NamedTestEvent(Names{"A"}, 5), true);
  manager.publish(NamedTestEvent(Names{"B"}, 6), true);
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{1, 2, 3, 4, 6}));
  EXPECT_EQ(manager.getSubscriptionCount(), 2U);  // "B" and "Hold".
}

// Two-list forms with empty lists, empty names and null clients: empty lists
// subscribe nothing and can be removed again; a delayed list without
// triggers holds events back until removal drops them; null clients are
// no-ops; an accepted combined subscription keeps working throughout.
TEST(ReliabilityBadInput, TwoListFormsWithEmptyListsOrNullClients) {
  vexutil::eventmgr::DefaultEventMgr& manager = defaultManager();
  Recorder working;
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, proxyFor(working));
  manager.publish(NamedTestEvent(Names{"Edit"}, 1), false);

  Recorder odd;
  manager.subscribe(Names{}, Names{}, proxyFor(odd));
  EXPECT_EQ(manager.getSubscriptionCount(), 2U);
  EXPECT_EQ(manager.getMailerCount(), 2U);
  manager.subscribe(Names{"", "Held"}, Names{""}, proxyFor(odd));  // "" is combined and skipped.
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);
  manager.subscribe(Names{}, Names{"Commit"}, proxyFor(odd));  // Triggers with nothing stored.
  EXPECT_EQ(manager.getSubscriptionCount(), 4U);
  manager.subscribe(Names{"Edit"}, Names{"Commit"}, EventMgr::ClientPtr());
  manager.subscribe(Names{}, Names{}, EventMgr::ClientPtr());
  manager.unSubscribe(Names{}, Names{}, EventMgr::ClientPtr());
  EXPECT_EQ(manager.getMailerCount(), 4U);

  manager.publish(NamedTestEvent(Names{"Held"}, 7), false);
  manager.publish(NamedTestEvent(Names{"Commit"}, 0), true);
  EXPECT_EQ(working.payloads(), std::vector<int>{1});
  EXPECT_EQ(odd.count(), 0U);  // "Held" has no trigger.

  manager.unSubscribe(Names{}, Names{}, proxyFor(odd));
  manager.unSubscribe(Names{"Held", ""}, Names{""}, proxyFor(odd));
  manager.unSubscribe(Names{}, Names{"Commit"}, proxyFor(odd));
  EXPECT_EQ(manager.getMailerCount(), 1U);
  EXPECT_EQ(manager.getSubscriptionCount(), 2U);
  manager.publish(NamedTestEvent(Names{"Edit"}, 2), false);
  manager.publish(NamedTestEvent(Names{"Commit"}, 0), true);
  EXPECT_EQ(working.payloads(), (std::vector<int>{1, 2}));
  EXPECT_EQ(odd.count(), 0U);
}

// A mailer built directly with a null client subscribes, stores and drops
// events at each trigger without handing anything over, sorts before every
// mailer with a client, and withdraws cleanly.
TEST(ReliabilityBadInput, ProxyMailerWithNullClientIsInert) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  {
    ProxyMailer nullMailer(Names{"Edit", "Both"}, Names{"Commit", "Both"}, EventMgr::ClientPtr());
    EXPECT_EQ(manager.getSubscriptionCount(), 3U);
    manager.publish(NamedTestEvent(Names{"Edit"}, 1), false);
    manager.publish(NamedTestEvent(Names{"Edit"}, 2), true);
    EXPECT_EQ(nullMailer.getStoredEventCount(), 2U);
    manager.publish(NamedTestEvent(Names{"Commit"}, 0), true);
    EXPECT_EQ(nullMailer.getStoredEventCount(), 0U);
    manager.publish(NamedTestEvent(Names{"Both"}, 3), true);
    EXPECT_EQ(nullMailer.getStoredEventCount(), 0U);

    // Called directly, too.
    nullMailer.notify(boost::shared_ptr<BaseEvent>());
    nullMailer.notify(boost::shared_ptr<BaseEvent>(new TestEvent(4)));
    nullMailer.combinedHandler(TestEvent(5));
    EXPECT_EQ(nullMailer.getStoredEventCount(), 0U);

    const ProxyMailer withClient(Names{"Edit"}, Names{"Commit"}, proxyFor(recorder));
    const ProxyMailer otherNull(Names{"Both", "Edit"}, Names{"Both", "Commit"}, EventMgr::ClientPtr());
    EXPECT_TRUE(nullMailer < withClient);
    EXPECT_FALSE(withClient < nullMailer);
    EXPECT_FALSE(nullMailer < otherNull);  // Same (null) client, same sets.
    EXPECT_FALSE(otherNull < nullMailer);
    manager.publish(NamedTestEvent(Names{"Edit"}, 6), false);
    manager.publish(NamedTestEvent(Names{"Commit"}, 0), true);
  }
  EXPECT_EQ(manager.getSubscriptionCount(), 0U);
  EXPECT_EQ(recorder.payloads(), std::vector<int>{6});
}

// Adapters with a null target or a null member function, subscribed through
// the ClientPtr forms, are accepted as inert subscribers (the null target
// one identified by address 0) and never stop delivery to the others.
TEST(ReliabilityBadInput, NullTargetOrHandlerAdaptersAreInert) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  using Adapter = ClientAdapter<Recorder, TestEvent>;
  const EventMgr::ClientPtr nullTarget(new Adapter(nullptr, &Recorder::onTest));
  const EventMgr::ClientPtr nullHandler(new Adapter(&recorder, nullptr));
  manager.subscribe("TestEvent", nullTarget);
  manager.subscribe(Names{"TestEvent", "Other"}, nullHandler);
  manager.subscribe(Names{"Edit"}, Names{"TestEvent"}, EventMgr::ClientPtr(new Adapter(nullptr, nullptr)));
  EXPECT_EQ(manager.getSubscriptionCount(), 5U);
  Recorder working;
  manager.subscribe("TestEvent", &working, &Recorder::onTest);
  manager.publish(NamedTestEvent(Names{"Edit"}, 1), false);
  manager.publish(TestEvent(2), true);
  EXPECT_EQ(working.payloads(), (std::vector<int>{1, 2}));  // "Edit" events are TestEvents too.
  EXPECT_EQ(recorder.count(), 0U);
  // Any other null-target adapter of the class is the same subscriber.
  manager.unSubscribe("TestEvent", EventMgr::ClientPtr(new Adapter(nullptr, nullptr)));
  manager.unSubscribe(Names{"TestEvent", "Other"}, proxyFor(recorder));
  EXPECT_EQ(manager.getSubscriptionCount(), 3U);  // The mailer's two, "working".
}

// Odd event type lists: an empty list is just "BaseEvent", an empty name and
// a repeated name are routed like any other (the repeat once per entry), a
// name nobody subscribed reaches nobody, and a host event that carries the
// name of the manager's internal requests is delivered to that name's
// subscribers and otherwise ignored (never run as a request).
TEST(ReliabilityBadInput, OddEventTypeListsAreRoutedSafely) {
  EventMgr& manager = *EventMgr::instance();
  Recorder byTest;
  Recorder byRepeat;
  Recorder byInternalName;
  manager.subscribe("TestEvent", &byTest, &Recorder::onTest);
  manager.subscribe("Twice", &byRepeat, &Recorder::onTest);
  manager.subscribe("ActionContainerEvent", &byInternalName, &Recorder::onTest);
  struct EmptyList : BaseEvent {
    EmptyList() : BaseEvent(Names{}) {}
    EmptyList* clone() const override { return new EmptyList(*this); }
  };
  EXPECT_EQ(EmptyList().getTypes(), Names{"BaseEvent"});
  manager.publish(EmptyList(), true);
  manager.publish(NamedTestEvent(Names{""}, 1), true);
  manager.publish(NamedTestEvent(Names{"Twice", "Twice"}, 2), true);
  manager.publish(NamedTestEvent(Names{"NobodyListens"}, 3), false);
  ::testing::internal::CaptureStdout();
  for (int i = 4; i < 8; ++i) {
    manager.publish(NamedTestEvent(Names{"ActionContainerEvent"}, i), i % 2 == 0);
  }
  drainQueue();
  manager.publish(BaseEvent(), false);  // Would print a failure report.
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(byTest.payloads(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(byRepeat.payloads(), (std::vector<int>{2, 2}));
  EXPECT_EQ(byInternalName.payloads(), (std::vector<int>{4, 5, 6, 7}));
  // The manager's own requests still work afterwards.
  Recorder late;
  manager.subscribe("TestEvent", &late, &Recorder::onTest);
  manager.publish(TestEvent(8), true);
  EXPECT_EQ(late.payloads(), std::vector<int>{8});
}

// An empty function handed off on the dispatcher thread returns at once: it
// never fills the slot and never blocks the dispatcher, although nobody
// pumps; pumping an empty slot does nothing.
TEST(ReliabilityBadInput, EmptyHandOffOnTheDispatcherReturnsAtOnce) {
  EventMgr& manager = *EventMgr::instance();
  Recorder recorder;
  recorder.setAction([](const BaseEvent&) { ToDoAdapter::runOnceOnMainThreadImpl(boost::function0<void>()); });
  manager.subscribe("TestEvent", &recorder, &Recorder::onTest);
  for (int i = 0; i < 3; ++i) {
    manager.publish(TestEvent(i), false);  // Nobody waits, so nobody pumps.
  }
  ASSERT_TRUE(recorder.waitFor(3));
  EXPECT_TRUE(slotIsEmpty());
  dynamic_cast<const ToDoAdapter&>(manager).invokeOnceOnMainThread();
  EXPECT_EQ(recorder.payloads(), (std::vector<int>{0, 1, 2}));
}

namespace {

class Context : public ContextBase {
 public:
  explicit Context(std::vector<std::string>* journal, std::string name)
      : journal_(journal), name_(std::move(name)) {}
  void restore() override { journal_->push_back("restore " + name_); }
  void save() override { journal_->push_back("save " + name_); }
  const std::string& name() const { return name_; }

 private:
  std::vector<std::string>* journal_;
  std::string name_;
};

// Makes contexts named after itself; `nullCreates` makes create() return
// null, which the registry stores as it is.
class Factory : public ContextFactoryBase {
 public:
  Factory(std::vector<std::string>* journal, std::string name) : journal_(journal), name_(std::move(name)) {}
  ContextBase* create() override {
    if (nullCreates) {
      return nullptr;
    }
    ++live;
    return new Context(journal_, name_);
  }
  void destroy(ContextBase* context) override {
    EXPECT_NE(context, nullptr);
    --live;
    delete context;
  }
  ContextBase* clone(const ContextBase* context) override {
    EXPECT_NE(context, nullptr);
    ++live;
    return new Context(journal_, dynamic_cast<const Context&>(*context).name() + "'");
  }
  bool nullCreates = false;
  int live = 0;

 private:
  std::vector<std::string>* journal_;
  std::string name_;
};

std::string nameOf(const ContextBase* context) {
  return context == nullptr ? "null" : dynamic_cast<const Context&>(*context).name();
}

}  // namespace

// Context sets with null entries (also from a factory whose create() returns
// null), short and empty sets, and a set cloned into itself: null entries
// are skipped and stay aligned, short sets pair only as far as they go, no
// factory ever sees a null context, and every context made is destroyed.
TEST(ReliabilityBadInput, ContextSetsWithNullEntriesAndShortSets) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  std::vector<std::string> journal;
  Factory a(&journal, "a");
  Factory b(&journal, "b");
  Factory c(&journal, "c");
  registry.registerFactory(&a);
  registry.registerFactory(nullptr);  // Ignored: b stays entry 1.
  registry.registerFactory(&b);
  registry.registerFactory(&c);
  ASSERT_EQ(registry.getFactoryCount(), 3U);

  b.nullCreates = true;
  ContextRegistry::ContextVector set;
  registry.create(set);
  ASSERT_EQ(set.size(), 3U);
  EXPECT_EQ(set[1], nullptr);
  registry.save(set);
  registry.restore(set);
  EXPECT_EQ(journal, (Names{"save a", "save c", "restore a", "restore c"}));

  // Cloned into itself: the copies follow the originals, the null one too.
  registry.clone(set, set);
  ASSERT_EQ(set.size(), 6U);
  EXPECT_EQ(nameOf(set[3]), "a'");
  EXPECT_EQ(set[4], nullptr);
  EXPECT_EQ(nameOf(set[5]), "c'");
  // Only the first three entries pair with factories; the copies are handed
  // back through a set of their own.
  ContextRegistry::ContextVector copies(set.begin() + 3, set.end());
  set.resize(3);
  registry.destroy(copies);
  EXPECT_TRUE(copies.empty());

  // A short set: one entry for three factories.
  ContextRegistry::ContextVector shortSet{set[0]};
  ContextRegistry::ContextVector shortCopy;
  registry.clone(shortCopy, shortSet);
  ASSERT_EQ(shortCopy.size(), 1U);
  EXPECT_EQ(nameOf(shortCopy[0]), "a'");
  registry.destroy(shortCopy);

  // Empty sets: nothing to do anywhere.
  ContextRegistry::ContextVector empty;
  journal.clear();
  registry.save(empty);
  registry.restore(empty);
  registry.clone(empty, empty);
  registry.destroy(empty);
  EXPECT_TRUE(empty.empty());
  EXPECT_TRUE(journal.empty());

  // All-null set of full length.
  ContextRegistry::ContextVector nulls(3, nullptr);
  ContextRegistry::ContextVector nullCopies;
  registry.clone(nullCopies, nulls);
  EXPECT_EQ(nullCopies, ContextRegistry::ContextVector(3, nullptr));
  registry.destroy(nulls);
  registry.destroy(nullCopies);

  registry.destroy(set);
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(a.live, 0);
  EXPECT_EQ(b.live, 0);
  EXPECT_EQ(c.live, 0);
}

// After shutdown every call is a harmless no-op, the forms not covered by
// the unit tests included: list and two-list forms with real clients,
// one-argument publish, and pumping hand-offs through the documented cast,
// which must still find a ToDoAdapter.
TEST(ReliabilityBadInput, EveryCallAfterShutdownIsANoOp) {
  Recorder recorder;
  EventMgr::instance()->subscribe("TestEvent", &recorder, &Recorder::onTest);
  shutDownManager();
  EventMgr& after = *EventMgr::instance();
  ASSERT_EQ(dynamic_cast<vexutil::eventmgr::DefaultEventMgr*>(&after), nullptr);
  const EventMgr::ClientPtr client = proxyFor(recorder);
  after.subscribe(Names{"TestEvent", "Other"}, client);
  after.subscribe(Names{"Edit"}, Names{"TestEvent"}, client);
  after.publish(NamedTestEvent(Names{"Edit"}, 1), false);
  after.publish(TestEvent(2));
  after.publish(TestEvent(3), true);
  after.unSubscribe(Names{"TestEvent", "Other"}, client);
  after.unSubscribe(Names{"Edit"}, Names{"TestEvent"}, client);
  after.unSubscribe("TestEvent", client);
  EXPECT_EQ(after.getSubscriptionCount(), 0U);
  EXPECT_EQ(after.getPendingEventCount(), 0U);
  EXPECT_FALSE(after.isDispatchOrMainThread());
  EXPECT_EQ(recorder.count(), 0U);

  // The host's main-loop pump keeps working.
  auto* pump = dynamic_cast<ToDoAdapter*>(EventMgr::instance());
  ASSERT_NE(pump, nullptr);
  pump->invokeOnceOnMainThread();
  EXPECT_NO_THROW(dynamic_cast<ToDoAdapter&>(*EventMgr::instance()).invokeOnceOnMainThread());
  // Off the dispatcher a hand-off still runs at once, on the caller.
  int ran = 0;
  ToDoAdapter::runOnceOnMainThreadImpl([&ran] { ++ran; });
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(slotIsEmpty());
  EXPECT_FALSE(vexutil::eventmgr::detail::isDefaultManagerCreated());
  // Other threads see the same no-op manager.
  EventMgr* seen = nullptr;
  std::thread([&seen] { seen = EventMgr::instance(); }).join();
  EXPECT_EQ(seen, &after);
}
