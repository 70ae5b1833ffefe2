// SPDX-License-Identifier: MIT
// vexutil-demo: a small host program on libvexutil.
//
// The main thread plays the host's main loop: it subscribes the demo's
// components, pumps the main-thread hand-off while worker threads publish
// events, and takes everything down again at the end. Every figure printed
// is measured or counted while the demo runs.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Corvane/System/Throwable.h"
#include "Corvane/System/UserException.h"
#include "DemoEvents.h"
#include "DemoSupport.h"
#include "libhx.h"
#include "vexutil/contextmgr/ContextRegistry.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/Diagnostics.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/eventmgr/ToDoAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"
#include "vexutil/version/Version.h"

namespace demo {
namespace {

using vexutil::contextmgr::ContextBase;
using vexutil::contextmgr::ContextFactoryBase;
using vexutil::contextmgr::ContextRegistry;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::Diagnostics;
using vexutil::eventmgr::EventMgr;
using vexutil::eventmgr::NotifyDeadlockException;
using vexutil::eventmgr::ToDoAdapter;
using vexutil::inputreqevt::InputRequestEvent;

using Counter = std::atomic<std::uint64_t>;

std::uint64_t read(const Counter& counter) { return counter.load(std::memory_order_relaxed); }
void bump(Counter& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

// The first status value of the InputRequestEvents that steps 3 and 4 use;
// the workers never send them.
constexpr std::int32_t kFailingStatus = 7001;
constexpr std::int32_t kMeddleStatus = 7002;
constexpr std::int32_t kFollowUpStatus = 7003;

// The author number of events that the main thread publishes; workers are
// 1..N.
constexpr int kMainAuthor = 0;

// ============================================================================
// Subscribers. Their handlers run on the dispatcher thread; the main thread
// reads their counters.
// ============================================================================

// Checks that the events of each author arrive in the order published.
class OrderCheck {
 public:
  void see(int author, std::uint64_t sequence) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = last_.find(author);
    if (found != last_.end() && sequence <= found->second) {
      ++outOfOrder_;
    }
    last_[author] = sequence;
  }
  std::uint64_t outOfOrder() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return outOfOrder_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<int, std::uint64_t> last_;
  std::uint64_t outOfOrder_ = 0;
};

// Listens by the base name "DocumentEvent": receives edits and commits.
class AuditLog {
 public:
  void onDocument(const DocumentEvent& event) {
    bump(documents);
    if (event.isOfType(CommitEvent::typeName())) {
      bump(commits);
    }
    latency.add(Clock::now() - event.madeAt);
  }
  Counter documents{0};
  Counter commits{0};
  Samples latency;  // From making the event to this handler.
};

// Listens by the derived name "EditEvent".
class EditCounter {
 public:
  void onEdit(const EditEvent& event) {
    bump(edits);
    order.see(event.author, event.sequence);
  }
  Counter edits{0};
  OrderCheck order;
};

// The client of a combined subscription: receives edits only when a commit
// arrives, all held-back edits one after the other. Its own subscription to
// "CommitEvent" marks where one batch ends and the next begins.
class CommitBatcher {
 public:
  void onBatchedEdit(const EditEvent& event) {
    bump(edits);
    order.see(event.author, event.sequence);
    heldBack.add(Clock::now() - event.madeAt);
    std::lock_guard<std::mutex> lock(mutex_);
    ++openBatch_;
    if (firstSequences_.size() < 8) {
      firstSequences_.push_back(event.sequence);
    }
  }
  void onCommit(const CommitEvent& /*event*/) { closeBatch(); }
  void closeBatch() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (openBatch_ > 0) {
      ++batches_;
      largestBatch_ = std::max(largestBatch_, openBatch_);
      openBatch_ = 0;
    }
  }
  std::uint64_t batches() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return batches_;
  }
  std::uint64_t largestBatch() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return largestBatch_;
  }
  std::vector<std::uint64_t> firstSequences() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return firstSequences_;
  }

  Counter edits{0};
  OrderCheck order;
  Samples heldBack;  // From making the edit to its hand-over.

 private:
  mutable std::mutex mutex_;
  std::uint64_t openBatch_ = 0;
  std::uint64_t batches_ = 0;
  std::uint64_t largestBatch_ = 0;
  std::vector<std::uint64_t> firstSequences_;
};

// Receives every InputRequestEvent; hands the flagged ones to the main thread,
// where the host's user interface lives.
class InputMonitor {
 public:
  void onInput(const InputRequestEvent& event) {
    bump(inputs);
    if (!event.getFlag()) {
      return;
    }
    const std::int32_t status = event.getCombinedStatus();
    const Clock::time_point start = Clock::now();
    // Blocks this (the dispatcher) thread until the main loop has run it.
    ToDoAdapter::runOnceOnMainThreadImpl([this, status] { showOnMainThread(status); });
    handOffWait.add(Clock::now() - start);
  }
  void showOnMainThread(std::int32_t status) {
    bump(handOffsRun);
    if (hxIsSignalThread() != 0) {
      bump(handOffsOnMainThread);
    }
    lastShownStatus.store(status, std::memory_order_relaxed);
  }

  Counter inputs{0};
  Counter handOffsRun{0};
  Counter handOffsOnMainThread{0};
  std::atomic<std::int32_t> lastShownStatus{0};
  Samples handOffWait;  // How long the dispatcher waited for the main loop.
};

// Fails on one status value, as a broken plug-in would.
class FlakyPlugin {
 public:
  void onInput(const InputRequestEvent& event) {
    bump(seen);
    if (event.getFirstStatus() == kFailingStatus) {
      bump(failures);
      throw Corvane::System::UserException("FlakyPlugin", "cannot handle input status 7001");
    }
  }
  Counter seen{0};
  Counter failures{0};
};

// Takes longer over every input than the slow-notify threshold of step 4b.
class SlowRenderer {
 public:
  void onInput(const InputRequestEvent& /*event*/) {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    bump(seen);
  }
  Counter seen{0};
};

// Makes requests from inside its handler: some are refused, some allowed.
class Meddler {
 public:
  void onInput(const InputRequestEvent& event) {
    if (event.getFirstStatus() == kMeddleStatus) {
      meddle();
    } else if (event.getFirstStatus() == kFollowUpStatus) {
      bump(followUpsSeen);
      // Allowed inside a handler: takes effect at once.
      EventMgr::instance()->unSubscribe(InputRequestEvent::typeName(), this, &Meddler::onInput);
      bump(unsubscribedInside);
    }
  }
  void onEdit(const EditEvent& /*event*/) {}

  Counter subscribeRefused{0};
  Counter subscribeAccepted{0};
  Counter syncPublishRefused{0};
  Counter asyncPublished{0};
  Counter followUpsSeen{0};
  Counter unsubscribedInside{0};

 private:
  void meddle() {
    EventMgr* const manager = EventMgr::instance();
    try {
      manager->subscribe(EditEvent::typeName(), this, &Meddler::onEdit);
      bump(subscribeAccepted);
    } catch (const NotifyDeadlockException&) {
      bump(subscribeRefused);
    }
    try {
      manager->publish(InputRequestEvent(kFollowUpStatus, 0, 0, false), true);
    } catch (const NotifyDeadlockException&) {
      bump(syncPublishRefused);
    }
    manager->publish(InputRequestEvent(kFollowUpStatus, 0, 0, false), false);
    bump(asyncPublished);
  }
};

// ============================================================================
// Context registry: the host's current view, and contexts that save and
// restore parts of it. Everything here runs on the main thread.
// ============================================================================

struct ViewState {
  double zoom = 1.0;
  std::string selection;
};
ViewState currentView;

class ZoomContext : public ContextBase {
 public:
  void save() override { zoom_ = currentView.zoom; }
  void restore() override { currentView.zoom = zoom_; }

 private:
  double zoom_ = 1.0;
};

class SelectionContext : public ContextBase {
 public:
  void save() override { selection_ = currentView.selection; }
  void restore() override { currentView.selection = selection_; }

 private:
  std::string selection_;
};

// A factory that counts the contexts it made and still owns.
template <typename Context>
class CountingFactory : public ContextFactoryBase {
 public:
  ContextBase* create() override {
    ++made;
    ++live;
    return new Context;
  }
  void destroy(ContextBase* context) override {
    --live;
    delete context;
  }
  ContextBase* clone(const ContextBase* context) override {
    ++made;
    ++live;
    return new Context(static_cast<const Context&>(*context));
  }
  long made = 0;
  long live = 0;
};

// ============================================================================
// Workers
// ============================================================================

struct WorkerTally {
  std::uint64_t edits = 0;
  std::uint64_t commits = 0;
  std::uint64_t inputs = 0;
  std::uint64_t flaggedInputs = 0;
  bool stoppedEarly = false;
  Samples publishCall;  // Time spent in publish(event, false).
};

// Publishes a mix of events asynchronously: mostly edits, a commit after every
// nine events, now and then an input request, and every 500th event an input
// request flagged for the main thread (each of those stops delivery until the
// main loop has run its hand-off). Ends with a commit, so that no
// edit stays held back in the combined subscription.
void runWorker(int author, unsigned long events, const std::atomic<bool>& stop, StartGate& gate, WorkerTally& tally) {
  EventMgr* const manager = EventMgr::instance();
  const auto timedPublish = [manager, &tally](const BaseEvent& event) {
    const Clock::time_point start = Clock::now();
    manager->publish(event, false);
    tally.publishCall.add(Clock::now() - start);
  };
  gate.wait();
  for (unsigned long k = 0; k < events; ++k) {
    if (stop.load(std::memory_order_relaxed)) {
      tally.stoppedEarly = true;
      break;
    }
    const auto status = static_cast<std::int32_t>(k % 256);
    if (k % 500 == 499) {
      timedPublish(InputRequestEvent(author, status, 1, true));
      ++tally.inputs;
      ++tally.flaggedInputs;
    } else if (k % 10 == 9) {
      timedPublish(CommitEvent(author, author));
      ++tally.commits;
    } else if (k % 5 == 2) {
      timedPublish(InputRequestEvent(author, status, 0, false));
      ++tally.inputs;
    } else {
      timedPublish(EditEvent(author, author, k + 1));
      ++tally.edits;
    }
  }
  timedPublish(CommitEvent(author, author));
  ++tally.commits;
}

// Joins the workers on every path out of the load phase.
class WorkerPool {
 public:
  WorkerPool() = default;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  ~WorkerPool() { stopAndJoin(); }

  void start(unsigned long count, unsigned long events) {
    tallies_.reserve(count);
    for (unsigned long i = 0; i < count; ++i) {
      tallies_.push_back(std::make_unique<WorkerTally>());
    }
    for (unsigned long i = 0; i < count; ++i) {
      WorkerTally* const tally = tallies_[i].get();
      threads_.emplace_back([this, i, events, tally] {
        runWorker(static_cast<int>(i + 1), events, stop_, gate_, *tally);
        running_.fetch_sub(1, std::memory_order_acq_rel);
      });
      running_.fetch_add(1, std::memory_order_acq_rel);
    }
  }
  void go() { gate_.open(); }
  unsigned long running() const { return running_.load(std::memory_order_acquire); }
  // Asks the workers to stop and waits for them; returns how many were joined.
  std::size_t stopAndJoin() {
    stop_.store(true, std::memory_order_relaxed);
    gate_.open();
    std::size_t joined = 0;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) {
        thread.join();
        ++joined;
      }
    }
    return joined;
  }
  const std::vector<std::unique_ptr<WorkerTally>>& tallies() const { return tallies_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<unsigned long> running_{0};
  StartGate gate_;
  std::vector<std::unique_ptr<WorkerTally>> tallies_;
  std::vector<std::thread> threads_;
};

std::string joinNumbers(const std::vector<std::uint64_t>& numbers) {
  std::string text;
  for (std::uint64_t number : numbers) {
    text += (text.empty() ? "" : ", ") + std::to_string(number);
  }
  return text;
}

// ============================================================================
// The demo
// ============================================================================

int runDemo(const Options& options) {
  Narrator say(options.quiet);
  const Clock::time_point demoStart = Clock::now();

  say.line("vexutil-demo: libvexutil %s (built %s); %lu workers x %lu events, time limit %lu ms", libvexutil_version,
           libvexutil_build_date, options.workers, options.events, options.durationMs);

  EventMgr* const manager = EventMgr::instance();
  // The default manager is also the hand-off's pump.
  auto* const mainLoopPump = dynamic_cast<ToDoAdapter*>(manager);
  if (mainLoopPump == nullptr) {
    std::fprintf(stderr, "vexutil-demo: the event manager offers no main-thread hand-off\n");
    return 1;
  }

  // The subscribers outlive `subscriptions`, which unsubscribes whatever is
  // still subscribed on the way out.
  AuditLog audit;
  EditCounter editCounter;
  CommitBatcher batcher;
  InputMonitor monitor;
  FlakyPlugin plugin;
  Meddler meddler;
  SubscriptionList subscriptions;

  const EventMgr::TypeList heldTypes{EditEvent::typeName()};
  const EventMgr::TypeList triggerTypes{CommitEvent::typeName()};
  const auto batcherClient = [&batcher] {
    return EventMgr::ClientPtr(new ClientAdapter<CommitBatcher, EditEvent>(&batcher, &CommitBatcher::onBatchedEdit));
  };

  // --- 1. Subscriptions ------------------------------------------------------
  say.blank();
  say.line("1. Subscribing member functions (each subscribe() returns once it is in force)");
  Samples subscribeCall;
  const auto timed = [&subscribeCall](const auto& subscribe) {
    const Clock::time_point start = Clock::now();
    subscribe();
    subscribeCall.add(Clock::now() - start);
  };
  timed([&] { manager->subscribe(DocumentEvent::typeName(), &audit, &AuditLog::onDocument); });
  subscriptions.add("AuditLog        \"DocumentEvent\"", [manager, &audit] {
    manager->unSubscribe(DocumentEvent::typeName(), &audit, &AuditLog::onDocument);
  });
  say.line("   AuditLog::onDocument       <- \"DocumentEvent\"      base name: edits and commits");
  timed([&] { manager->subscribe(EditEvent::typeName(), &editCounter, &EditCounter::onEdit); });
  subscriptions.add("EditCounter     \"EditEvent\"", [manager, &editCounter] {
    manager->unSubscribe(EditEvent::typeName(), &editCounter, &EditCounter::onEdit);
  });
  say.line("   EditCounter::onEdit        <- \"EditEvent\"          derived name: edits only");
  timed([&] { manager->subscribe(heldTypes, triggerTypes, batcherClient()); });
  timed([&] { manager->subscribe(CommitEvent::typeName(), &batcher, &CommitBatcher::onCommit); });
  subscriptions.add("CommitBatcher   combined + \"CommitEvent\"",
                    [manager, &batcher, heldTypes, triggerTypes, batcherClient] {
                      manager->unSubscribe(CommitEvent::typeName(), &batcher, &CommitBatcher::onCommit);
                      manager->unSubscribe(heldTypes, triggerTypes, batcherClient());
                    });
  say.line("   CommitBatcher::onBatchedEdit <- combined: \"EditEvent\" held back until \"CommitEvent\"");
  say.line("   CommitBatcher::onCommit    <- \"CommitEvent\"        marks where a batch ends");
  timed([&] { manager->subscribe(InputRequestEvent::typeName(), &monitor, &InputMonitor::onInput); });
  subscriptions.add("InputMonitor    \"InputRequestEvent\"", [manager, &monitor] {
    manager->unSubscribe(InputRequestEvent::typeName(), &monitor, &InputMonitor::onInput);
  });
  say.line("   InputMonitor::onInput      <- \"InputRequestEvent\"  hands flagged ones to the main thread");
  const unsigned int subscribedCount = manager->getSubscriptionCount();
  const Samples::Summary subscribeSummary = subscribeCall.summary();
  say.line("   %u subscriptions in force (the combined one holds 2); subscribe() took %s on average, %s at most",
           subscribedCount, humanTime(subscribeSummary.mean).c_str(), humanTime(subscribeSummary.max).c_str());
  say.check(subscribedCount == 6, "subscription count is 6");

  // --- 2. Combined subscription, step by step ---------------------------------
  say.blank();
  say.line("2. Combined subscription, step by step (synchronous publishes from the main thread)");
  for (std::uint64_t sequence = 1; sequence <= 3; ++sequence) {
    manager->publish(EditEvent(1, kMainAuthor, sequence));
  }
  const std::uint64_t editsSeen = read(editCounter.edits);
  const std::uint64_t editsHanded = read(batcher.edits);
  say.line("   3 edits published: EditCounter has %llu, CommitBatcher has %llu (held back)",
           static_cast<unsigned long long>(editsSeen), static_cast<unsigned long long>(editsHanded));
  manager->publish(CommitEvent(1, kMainAuthor));
  const std::uint64_t editsAfterCommit = read(batcher.edits);
  const std::vector<std::uint64_t> firstSequences = batcher.firstSequences();
  say.line("   1 commit published: CommitBatcher has %llu, in arrival order (sequences %s)",
           static_cast<unsigned long long>(editsAfterCommit), joinNumbers(firstSequences).c_str());
  say.check(editsSeen == 3 && editsHanded == 0 && editsAfterCommit == 3 &&
                firstSequences == std::vector<std::uint64_t>{1, 2, 3},
            "edits held back until the commit, then handed over in order");
  say.check(read(audit.documents) == 4 && read(audit.commits) == 1,
            "AuditLog (\"DocumentEvent\") saw all 4: 3 edits and 1 commit");

  // --- 3. A failing subscriber -------------------------------------------------
  say.blank();
  say.line("3. A failing subscriber");
  manager->subscribe(InputRequestEvent::typeName(), &plugin, &FlakyPlugin::onInput);
  say.line("   FlakyPlugin throws a UserException on status %d. The manager catches it, goes on with", kFailingStatus);
  say.line("   the next subscriber, and leaves a report that the next publishing thread prints:");
  bool publisherUnaffected = true;
  try {
    manager->publish(InputRequestEvent(kFailingStatus, 0, 0, false));
    manager->publish(InputRequestEvent(kFailingStatus + 100, 0, 0, false));  // Prints the report at the latest.
  } catch (...) {
    publisherUnaffected = false;
  }
  manager->unSubscribe(InputRequestEvent::typeName(), &plugin, &FlakyPlugin::onInput);
  say.line("   (end of report)");
  say.check(publisherUnaffected && read(plugin.failures) == 1 && read(plugin.seen) == 2,
            "publish() returned normally; the plug-in failed once and still got the next event");

  // --- 4. Requests from inside a handler ------------------------------------------
  say.blank();
  say.line("4. Requests made inside a handler (on the dispatcher thread)");
  manager->subscribe(InputRequestEvent::typeName(), &meddler, &Meddler::onInput);
  const unsigned int beforeMeddling = manager->getSubscriptionCount();
  manager->publish(InputRequestEvent(kMeddleStatus, 0, 0, false));
  // A synchronous publish is queued behind the follow-up that the handler
  // published asynchronously, so the follow-up has been delivered after it.
  manager->publish(BaseEvent());
  const unsigned int afterMeddling = manager->getSubscriptionCount();
  say.line("   subscribe():               %s",
           read(meddler.subscribeRefused) == 1 ? "refused with NotifyDeadlockException" : "not refused");
  say.line("   publish(event, true):      %s",
           read(meddler.syncPublishRefused) == 1 ? "refused with NotifyDeadlockException" : "not refused");
  say.line("   publish(event, false):     accepted, delivered after the handler returned (%llu seen)",
           static_cast<unsigned long long>(read(meddler.followUpsSeen)));
  say.line("   unSubscribe() of itself:   allowed, in force at once (subscriptions %u -> %u)", beforeMeddling,
           afterMeddling);
  say.check(read(meddler.subscribeRefused) == 1 && read(meddler.subscribeAccepted) == 0 &&
                read(meddler.syncPublishRefused) == 1,
            "requests that wait for the dispatcher were refused inside the handler");
  say.check(read(meddler.followUpsSeen) == 1 && afterMeddling + 1 == beforeMeddling,
            "the asynchronous follow-up arrived and the unsubscribe took effect");
  // A no-op when the handler's own unSubscribe worked; makes sure either way.
  manager->unSubscribe(InputRequestEvent::typeName(), &meddler, &Meddler::onInput);

  // --- 4b. Diagnostics ---------------------------------------------------------------
  say.blank();
  say.line("4b. Diagnostics: a subscriber slower than a 20 ms threshold is named (at most once per 10 s)");
  {
    SlowRenderer renderer;
    Diagnostics::setSlowNotifyThreshold(std::chrono::milliseconds(20));
    manager->subscribe(InputRequestEvent::typeName(), &renderer, &SlowRenderer::onInput);
    for (int i = 0; i < 3; ++i) {
      manager->publish(InputRequestEvent(kFollowUpStatus + 1, 0, 0, false));
    }
    manager->unSubscribe(InputRequestEvent::typeName(), &renderer, &SlowRenderer::onInput);
    Diagnostics::setSlowNotifyThreshold(std::chrono::nanoseconds(0));
    const vexutil::eventmgr::EventCounts counts = Diagnostics::getCounts();
    say.check(read(renderer.seen) == 3 && counts.longestNotifySubscriber.find("SlowRenderer") != std::string::npos,
              format("3 slow inputs, one report; the longest notify so far took %s, in %s",
                     humanTime(static_cast<double>(counts.longestNotify.count()) / 1000.0).c_str(),
                     counts.longestNotifySubscriber.c_str()));
  }

  // --- 5. Context registry -----------------------------------------------------------
  say.blank();
  say.line("5. Context registry");
  // Registered once for the whole process; they must outlive every use.
  static CountingFactory<ZoomContext> zoomFactory;
  static CountingFactory<SelectionContext> selectionFactory;
  ContextRegistry* const registry = ContextRegistry::getInstance();
  registry->registerFactory(&zoomFactory);
  registry->registerFactory(&selectionFactory);
  const auto view = [] {
    return format("zoom %.2f, selection \"%s\"", currentView.zoom, currentView.selection.c_str());
  };
  ContextRegistry::ContextVector setA;
  ContextRegistry::ContextVector setB;
  ContextRegistry::ContextVector setC;
  registry->create(setA);
  currentView = ViewState{1.0, "title page"};
  registry->save(setA);
  const std::string viewA = view();
  say.line("   %zu factories; set A made (%zu contexts) and saved with %s", registry->getFactoryCount(), setA.size(),
           viewA.c_str());
  registry->create(setB);
  currentView = ViewState{2.5, "chapter 3"};
  registry->save(setB);
  const std::string viewB = view();
  say.line("   set B made and saved with %s", viewB.c_str());
  registry->restore(setA);
  say.check(view() == viewA, "restore A gives " + view());
  registry->clone(setC, setA);
  currentView = ViewState{4.0, "scratch"};
  registry->save(setA);  // A changes; its clone C must not.
  registry->restore(setC);
  say.check(view() == viewA, "clone A into C, save new state into A, restore C gives " + view());
  registry->restore(setB);
  say.check(view() == viewB, "restore B gives " + view());
  registry->destroy(setA);
  registry->destroy(setB);
  registry->destroy(setC);
  say.check(zoomFactory.live == 0 && selectionFactory.live == 0 && setA.empty() && setB.empty() && setC.empty(),
            format("destroy A, B and C: %ld contexts made, %ld left", zoomFactory.made + selectionFactory.made,
                   zoomFactory.live + selectionFactory.live));

  // --- 6. Load -------------------------------------------------------------------------
  say.blank();
  say.line("6. Load: %lu workers publish asynchronously; the main loop pumps the main-thread hand-off",
           options.workers);
  audit.latency.clear();
  batcher.heldBack.clear();
  const std::uint64_t documentsBefore = read(audit.documents);
  const std::uint64_t commitsBefore = read(audit.commits);
  const std::uint64_t editsBefore = read(editCounter.edits);
  const std::uint64_t batchedBefore = read(batcher.edits);
  const std::uint64_t inputsBefore = read(monitor.inputs);
  const std::uint64_t handOffsBefore = read(monitor.handOffsRun);
  const std::uint64_t onMainBefore = read(monitor.handOffsOnMainThread);
  batcher.closeBatch();
  const std::uint64_t batchesBefore = batcher.batches();

  WorkerPool workers;
  workers.start(options.workers, options.events);
  Samples mainSyncPublish;
  std::uint64_t mainInputs = 0;
  const Clock::time_point loadStart = Clock::now();
  const Clock::time_point deadline = loadStart + std::chrono::milliseconds(options.durationMs);
  Clock::time_point nextSyncPublish = loadStart;
  bool timeLimitReached = false;
  workers.go();
  // The host's main loop: run what subscribers handed to the main thread,
  // publish now and then, idle briefly.
  while (workers.running() > 0) {
    const Clock::time_point now = Clock::now();
    if (now >= deadline) {
      timeLimitReached = true;
      break;
    }
    mainLoopPump->invokeOnceOnMainThread();
    if (now >= nextSyncPublish) {
      const Clock::time_point start = Clock::now();
      manager->publish(InputRequestEvent(kMainAuthor, 0, 2, false));  // Pumps while it waits.
      mainSyncPublish.add(Clock::now() - start);
      ++mainInputs;
      nextSyncPublish = Clock::now() + std::chrono::milliseconds(5);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  const Clock::time_point publishingEnd = Clock::now();
  // Workers never wait for the dispatcher, so they can be joined while the
  // main loop does not pump.
  const std::size_t joined = workers.stopAndJoin();
  const unsigned int queuedAtJoin = manager->getPendingEventCount();
  // A synchronous publish is queued behind everything published before it:
  // when it returns, every event of the workers has been delivered. While it
  // waits it also runs the main-thread hand-offs.
  const Clock::time_point drainStart = Clock::now();
  manager->publish(BaseEvent());
  const Clock::time_point drainEnd = Clock::now();
  batcher.closeBatch();

  WorkerTally total;
  bool anyStoppedEarly = false;
  Samples::Summary publishCall;
  std::vector<double> callMeans;
  for (const std::unique_ptr<WorkerTally>& tally : workers.tallies()) {
    total.edits += tally->edits;
    total.commits += tally->commits;
    total.inputs += tally->inputs;
    total.flaggedInputs += tally->flaggedInputs;
    anyStoppedEarly = anyStoppedEarly || tally->stoppedEarly;
    const Samples::Summary summary = tally->publishCall.summary();
    publishCall.count += summary.count;
    publishCall.mean += summary.mean * static_cast<double>(summary.count);
    publishCall.p99 = std::max(publishCall.p99, summary.p99);
    publishCall.max = std::max(publishCall.max, summary.max);
  }
  if (publishCall.count > 0) {
    publishCall.mean /= static_cast<double>(publishCall.count);
  }
  const std::uint64_t published = total.edits + total.commits + total.inputs;
  const double publishingUs = toMicroseconds(publishingEnd - loadStart);
  const double deliveredUs = toMicroseconds(drainEnd - loadStart);
  if (timeLimitReached) {
    say.line("   time limit of %lu ms reached: workers asked to stop%s", options.durationMs,
             anyStoppedEarly ? " early" : "");
  }
  say.line("   published %llu events in %s: %llu edits, %llu commits, %llu input requests (%llu flagged)",
           static_cast<unsigned long long>(published), humanTime(publishingUs).c_str(),
           static_cast<unsigned long long>(total.edits), static_cast<unsigned long long>(total.commits),
           static_cast<unsigned long long>(total.inputs), static_cast<unsigned long long>(total.flaggedInputs));
  say.line("   publish(event, false) call: mean %s, worst per-worker p99 %s, max %s",
           humanTime(publishCall.mean).c_str(), humanTime(publishCall.p99).c_str(), humanTime(publishCall.max).c_str());
  const Samples::Summary syncSummary = mainSyncPublish.summary();
  say.line("   main loop: %zu synchronous publishes under load, round trip median %s, max %s", syncSummary.count,
           humanTime(syncSummary.median).c_str(), humanTime(syncSummary.max).c_str());
  say.line("   %zu workers joined with %u entr%s still queued; a synchronous publish drained them in %s", joined,
           queuedAtJoin, queuedAtJoin == 1 ? "y" : "ies", humanTime(toMicroseconds(drainEnd - drainStart)).c_str());
  say.line("   all delivered %s after the start: %.0f events/s end to end", humanTime(deliveredUs).c_str(),
           deliveredUs > 0 ? static_cast<double>(published + mainInputs) * 1e6 / deliveredUs : 0.0);
  const Samples::Summary latency = audit.latency.summary();
  say.line("   delivery latency (event made -> AuditLog): median %s, p99 %s, max %s", humanTime(latency.median).c_str(),
           humanTime(latency.p99).c_str(), humanTime(latency.max).c_str());

  const std::uint64_t documents = read(audit.documents) - documentsBefore;
  const std::uint64_t commits = read(audit.commits) - commitsBefore;
  const std::uint64_t edits = read(editCounter.edits) - editsBefore;
  const std::uint64_t batched = read(batcher.edits) - batchedBefore;
  const std::uint64_t batches = batcher.batches() - batchesBefore;
  const std::uint64_t inputs = read(monitor.inputs) - inputsBefore;
  const std::uint64_t handOffs = read(monitor.handOffsRun) - handOffsBefore;
  const std::uint64_t onMain = read(monitor.handOffsOnMainThread) - onMainBefore;
  const auto u = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  say.check(documents == total.edits + total.commits && commits == total.commits,
            format("AuditLog      \"DocumentEvent\"      %llu = %llu edits + %llu commits", u(documents),
                   u(documents - commits), u(commits)));
  say.check(edits == total.edits, format("EditCounter   \"EditEvent\"          %llu edits", u(edits)));
  const Samples::Summary held = batcher.heldBack.summary();
  say.check(
      batched == total.edits && batches > 0,
      format("CommitBatcher combined             %llu edits in %llu batches (mean %.1f, largest %llu)", u(batched),
             u(batches), batches > 0 ? static_cast<double>(batched) / static_cast<double>(batches) : 0.0,
             u(batcher.largestBatch())));
  say.line("     from being made to being handed over on a commit: median %s, max %s", humanTime(held.median).c_str(),
           humanTime(held.max).c_str());
  say.check(editCounter.order.outOfOrder() == 0 && batcher.order.outOfOrder() == 0,
            "each worker's edits arrived in the order published (direct and combined)");
  say.check(inputs == total.inputs + mainInputs,
            format("InputMonitor  \"InputRequestEvent\"  %llu = %llu from workers + %llu from the main loop", u(inputs),
                   u(total.inputs), u(mainInputs)));
  const Samples::Summary handOffWait = monitor.handOffWait.summary();
  say.check(handOffs == total.flaggedInputs && onMain == handOffs,
            format("hand-offs: %llu of %llu ran on the main thread", u(onMain), u(total.flaggedInputs)));
  say.line("     the dispatcher waited for the main loop: median %s, max %s", humanTime(handOffWait.median).c_str(),
           humanTime(handOffWait.max).c_str());

  // --- 7. Shutdown ---------------------------------------------------------------------
  say.blank();
  say.line("7. Shutdown, in order");
  say.line("   workers stopped and joined (%zu of %lu), queue drained: %u events pending", joined, options.workers,
           manager->getPendingEventCount());
  while (!subscriptions.empty()) {
    const unsigned int before = manager->getSubscriptionCount();
    const std::string label = subscriptions.undoLast();
    say.line("   unsubscribe %-42s subscriptions %u -> %u", label.c_str(), before, manager->getSubscriptionCount());
  }
  const unsigned int finalSubscriptions = manager->getSubscriptionCount();
  const unsigned int finalPending = manager->getPendingEventCount();
  say.check(finalSubscriptions == 0 && finalPending == 0,
            format("%u subscriptions, %u events pending: nothing left to deliver", finalSubscriptions, finalPending));
  const vexutil::eventmgr::EventCounts counts = Diagnostics::getCounts();
  say.check(counts.published == counts.delivered + counts.failed + counts.noSubscriber,
            format("counts: %llu published = %llu delivered + %llu failed + %llu with no subscriber (last \"%s\"); "
                   "queue high-water mark %llu",
                   u(counts.published), u(counts.delivered), u(counts.failed), u(counts.noSubscriber),
                   counts.lastNoSubscriberType.c_str(), u(counts.queueHighWater)));
  say.line("   returning from main: at exit the manager stops and joins its dispatcher thread,");
  say.line("   and EventMgr::instance() hands out a no-op manager from then on");

  const double totalUs = toMicroseconds(Clock::now() - demoStart);
  say.blank();
  const std::string summary = format(
      "vexutil-demo: %s: %u of %u checks passed; %llu events from %lu worker%s delivered in %s, "
      "%llu main-thread hand-off%s, %llu failure report%s, total %s",
      say.failures() == 0 ? "ok" : "FAILED", say.checks() - say.failures(), say.checks(), u(published), options.workers,
      options.workers == 1 ? "" : "s", humanTime(deliveredUs).c_str(), u(handOffs), handOffs == 1 ? "" : "s",
      u(read(plugin.failures)), read(plugin.failures) == 1 ? "" : "s", humanTime(totalUs).c_str());
  std::printf("%s\n", summary.c_str());
  std::fflush(stdout);
  return say.failures() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  demo::Options options;
  try {
    options = demo::parseOptions(argc, argv);
  } catch (const demo::UsageError& error) {
    std::fprintf(stderr, "vexutil-demo: %s\nTry 'vexutil-demo --help' for the options.\n", error.what());
    return 2;
  }
  if (options.help) {
    demo::printHelp(stdout);
    return 0;
  }
  try {
    return demo::runDemo(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vexutil-demo: failed: %s\n", error.what());
  } catch (const Corvane::System::Throwable& error) {
    std::fprintf(stderr, "vexutil-demo: failed: %s\n", error.getMessage().c_str());
  } catch (...) {
    std::fprintf(stderr, "vexutil-demo: failed with an unknown exception\n");
  }
  return 1;
}
