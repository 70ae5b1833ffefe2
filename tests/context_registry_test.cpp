// The context registry makes, saves, restores, clones and destroys sets of
// per-context objects, one per factory in registration order.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "vexutil/contextmgr/ContextRegistry.h"

using vexutil::contextmgr::ContextBase;
using vexutil::contextmgr::ContextFactoryBase;
using vexutil::contextmgr::ContextRegistry;

namespace {

// Every call lands in one shared journal, so order across contexts is visible.
std::vector<std::string>& journal() {
  static std::vector<std::string> entries;
  return entries;
}

class NamedContext : public ContextBase {
 public:
  NamedContext(std::string name, const ContextFactoryBase* maker) : name_(std::move(name)), maker_(maker) {}
  void restore() override { journal().push_back("restore " + name_); }
  void save() override { journal().push_back("save " + name_); }
  const std::string& name() const { return name_; }
  const ContextFactoryBase* maker() const { return maker_; }

 private:
  std::string name_;
  const ContextFactoryBase* maker_;
};

class NamedFactory : public ContextFactoryBase {
 public:
  explicit NamedFactory(std::string name) : name_(std::move(name)) {}
  ContextBase* create() override {
    if (failCreate) {
      throw std::runtime_error("create failed");
    }
    ++live;
    return new NamedContext(name_ + "#" + std::to_string(++made_), this);
  }
  void destroy(ContextBase* context) override {
    auto* named = dynamic_cast<NamedContext*>(context);
    destroyedOwn.push_back(named != nullptr && named->maker() == this);
    --live;
    delete context;
  }
  ContextBase* clone(const ContextBase* context) override {
    const auto& named = dynamic_cast<const NamedContext&>(*context);
    ++live;
    return new NamedContext(named.name() + "'", this);
  }
  int live = 0;
  bool failCreate = false;
  std::vector<bool> destroyedOwn;

 private:
  std::string name_;
  int made_ = 0;
};

std::string nameOf(const ContextBase* context) { return dynamic_cast<const NamedContext&>(*context).name(); }

}  // namespace

// One process-wide registry, the same for racing first callers.
TEST(ContextRegistry, OneInstanceForConcurrentFirstCalls) {
  std::atomic<ContextRegistry*> seenByOther{nullptr};
  std::thread other([&seenByOther] { seenByOther = ContextRegistry::getInstance(); });
  ContextRegistry* mine = ContextRegistry::getInstance();
  other.join();
  EXPECT_NE(mine, nullptr);
  EXPECT_EQ(mine, seenByOther.load());
}

// The whole life of a set: create, save/restore in order, clone, destroy.
TEST(ContextRegistry, SetLifecycleFollowsFactoryOrder) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  NamedFactory a("a");
  NamedFactory b("b");
  registry.registerFactory(&a);
  registry.registerFactory(&b);
  registry.registerFactory(nullptr);  // Ignored.
  EXPECT_EQ(registry.getFactoryCount(), 2U);

  ContextRegistry::ContextVector set;
  registry.create(set);
  ASSERT_EQ(set.size(), 2U);
  EXPECT_EQ(nameOf(set[0]), "a#1");
  EXPECT_EQ(nameOf(set[1]), "b#1");

  journal().clear();
  registry.save(set);
  registry.restore(set);
  EXPECT_EQ(journal(), (std::vector<std::string>{"save a#1", "save b#1", "restore a#1", "restore b#1"}));

  ContextRegistry::ContextVector copy;
  registry.clone(copy, set);
  ASSERT_EQ(copy.size(), 2U);
  EXPECT_EQ(nameOf(copy[0]), "a#1'");
  EXPECT_EQ(nameOf(copy[1]), "b#1'");

  // create appends after what is there.
  registry.create(set);
  ASSERT_EQ(set.size(), 4U);
  EXPECT_EQ(nameOf(set[2]), "a#2");

  registry.destroy(copy);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(a.destroyedOwn, std::vector<bool>{true});
  EXPECT_EQ(b.destroyedOwn, std::vector<bool>{true});

  // Only the first two entries are paired with factories: the rest stay
  // undestroyed and the vector is emptied anyway.
  std::vector<ContextBase*> extras(set.begin() + 2, set.end());
  registry.destroy(set);
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(a.live, 1);
  EXPECT_EQ(b.live, 1);
  for (ContextBase* extra : extras) {
    delete extra;
  }
}

// A factory registered twice contributes two entries; a short set is paired only as far as it goes.
TEST(ContextRegistry, DuplicateFactoriesAndShortSets) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  NamedFactory a("a");
  registry.registerFactory(&a);
  ContextRegistry::ContextVector early;
  registry.create(early);
  registry.registerFactory(&a);
  ContextRegistry::ContextVector full;
  registry.create(full);
  EXPECT_EQ(early.size(), 1U);
  EXPECT_EQ(full.size(), 2U);

  ContextRegistry::ContextVector copy;
  registry.clone(copy, early);  // Shorter than the factory list: one copy, no overrun.
  EXPECT_EQ(copy.size(), 1U);
  registry.destroy(copy);
  registry.destroy(early);
  registry.destroy(full);
  EXPECT_EQ(a.live, 0);
}

// With no factory, create and clone add nothing, destroy only empties, save visits all entries.
TEST(ContextRegistry, NoFactoriesStillVisitsEntries) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  ASSERT_EQ(registry.getFactoryCount(), 0U);
  NamedContext loose("loose", nullptr);
  ContextRegistry::ContextVector set{&loose, nullptr};
  registry.create(set);
  EXPECT_EQ(set.size(), 2U);
  journal().clear();
  registry.save(set);
  registry.restore(set);
  EXPECT_EQ(journal(), (std::vector<std::string>{"save loose", "restore loose"}));
  ContextRegistry::ContextVector copy;
  registry.clone(copy, set);
  EXPECT_TRUE(copy.empty());
  registry.destroy(set);
  EXPECT_TRUE(set.empty());
}

// A failing factory leaves what was made in place and releases the lock.
TEST(ContextRegistry, FactoryFailureKeepsPartialWorkAndReleasesLock) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  NamedFactory good("good");
  NamedFactory bad("bad");
  bad.failCreate = true;
  registry.registerFactory(&good);
  registry.registerFactory(&bad);
  ContextRegistry::ContextVector set;
  EXPECT_THROW(registry.create(set), std::runtime_error);
  ASSERT_EQ(set.size(), 1U);
  EXPECT_EQ(nameOf(set[0]), "good#1");
  // Another thread can still get in: the lock was released.
  std::size_t countFromOther = 0;
  std::thread([&] { countFromOther = registry.getFactoryCount(); }).join();
  EXPECT_EQ(countFromOther, 2U);
  registry.destroy(set);
  EXPECT_EQ(good.live, 0);
}

// A context may call back into the registry from inside save (re-entrant lock).
TEST(ContextRegistry, CallbacksMayReenterTheRegistry) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  struct Reentrant : ContextBase {
    std::size_t seen = 99;
    void restore() override {}
    void save() override { seen = ContextRegistry::getInstance()->getFactoryCount(); }
  } context;
  ContextRegistry::ContextVector set{&context};
  registry.save(set);
  EXPECT_EQ(context.seen, 0U);
}
