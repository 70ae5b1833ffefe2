// SPDX-License-Identifier: MIT
// The context registry makes, saves, restores, clones and destroys sets of
// per-context objects, one per factory in registration order.
#include "UnitTest.h"

using Set = ContextRegistry::ContextVector;

namespace {

Names journal;  // Every save, restore and destroy, in call order across contexts and factories.

struct NamedContext : ContextBase {
  explicit NamedContext(std::string text) : name(std::move(text)) {}
  void restore() override { journal.push_back("restore " + name); }
  void save() override { journal.push_back("save " + name); }
  const std::string name;
};

// Names its contexts "<factory><n>" and clones "<original>'"; a factory named "bad" fails to create, one named
// "null" creates null contexts. A null context must never be handed to a factory.
struct NamedFactory : ContextFactoryBase {
  explicit NamedFactory(std::string text) : name(std::move(text)) {}
  ContextBase* create() override {
    if (name == "bad") {
      throw std::runtime_error("create failed");
    }
    return name == "null" ? nullptr : new NamedContext(name + std::to_string(++made));
  }
  void destroy(ContextBase* context) override {
    ASSERT_NE(context, nullptr) << "a factory was handed a null context";
    journal.push_back(name + " destroys " + dynamic_cast<NamedContext&>(*context).name);
    delete context;
  }
  ContextBase* clone(const ContextBase* context) override {
    EXPECT_NE(context, nullptr) << "a factory was handed a null context";
    return new NamedContext(dynamic_cast<const NamedContext&>(*context).name + "'");
  }
  const std::string name;
  int made = 0;
};

}  // namespace

// Entry i of a set belongs to factory i: made, saved, restored, cloned and destroyed in registration order.
// A factory registered twice gives two entries, null is ignored, a null context keeps its entry (save and
// restore pass it by, no factory is handed it), a set cloned into itself gets the copies after the originals,
// create appends, entries beyond the factories are dropped undestroyed, and a set made before later
// registrations is paired only as far as it goes.
TEST(ContextRegistry, SetsFollowFactoryOrder) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  NamedFactory a("a");
  NamedFactory b("b");
  NamedFactory nulls("null");
  registry.registerFactory(&a);
  Set early;
  registry.create(early);
  registry.registerFactory(&b);
  registry.registerFactory(nullptr);
  registry.registerFactory(&nulls);
  registry.registerFactory(&a);
  Set set;
  registry.create(set);
  registry.save(set);
  registry.restore(set);
  registry.clone(set, set);
  ASSERT_EQ(set.size(), 8U);  // Null entries are destroyed by nobody: a non-null one would reach the journal.
  Set copy(set.begin() + 4, set.end());
  set.resize(4);
  Set shortCopy;
  registry.clone(shortCopy, early);
  registry.create(set);
  ASSERT_EQ(set.size(), 8U);
  const std::unique_ptr<ContextBase> beyond[] = {
      std::unique_ptr<ContextBase>(set[4]), std::unique_ptr<ContextBase>(set[5]), std::unique_ptr<ContextBase>(set[7])};
  for (Set* each : {&set, &copy, &shortCopy, &early}) {
    registry.destroy(*each);
    EXPECT_TRUE(each->empty());
  }
  EXPECT_EQ(journal, (Names{"save a2", "save b1", "save a3", "restore a2", "restore b1", "restore a3", "a destroys a2",
                            "b destroys b1", "a destroys a3", "a destroys a2'", "b destroys b1'", "a destroys a3'",
                            "a destroys a1'", "a destroys a1"}));
}

// Without factories create and clone add nothing, yet save and restore visit each non-null entry (which may
// re-enter). A failing factory then leaves the contexts made before it in the set and releases the lock.
TEST(ContextRegistry, NoFactoriesStillVisitsEntriesAndAFailingOneKeepsPartialWork) {
  ContextRegistry& registry = *ContextRegistry::getInstance();
  struct Reentrant : ContextBase {
    void restore() override {}
    void save() override {
      journal.push_back("factories " + std::to_string(ContextRegistry::getInstance()->getFactoryCount()));
    }
  } reentrant;
  NamedContext loose("loose");
  Set set{&loose, nullptr, &reentrant};
  registry.create(set);
  registry.save(set);
  registry.restore(set);
  registry.clone(set, set);
  EXPECT_EQ(set.size(), 3U);
  registry.destroy(set);  // Empties the set: the factories registered next must not be paired with its entries.
  NamedFactory good("good");
  NamedFactory bad("bad");
  registry.registerFactory(&good);
  registry.registerFactory(&bad);
  EXPECT_THROW(registry.create(set), std::runtime_error);
  std::size_t countFromOther = 0;
  std::thread([&] { countFromOther = registry.getFactoryCount(); }).join();
  EXPECT_EQ(countFromOther, 2U);
  registry.destroy(set);
  EXPECT_EQ(journal, (Names{"save loose", "factories 0", "restore loose", "good destroys good1"}));
}
