// SPDX-License-Identifier: MIT
// Events: their type chain, description and copies, the Event<Class, Base> helper, and Subscription handles of
// every form, reset from outside and from their own handler.
#include <tuple>
#include <typeinfo>

#include "ActionContainerEvent.h"
#include "UnitTest.h"

namespace {

class DocumentEvent : public Event<DocumentEvent> {
 public:
  explicit DocumentEvent(int document) : document_(document) {}
  static const std::string& typeName() noexcept { return typeNameConstant("DocumentEvent"); }
  int document() const noexcept { return document_; }

 private:
  int document_;
};

class EditEvent : public Event<EditEvent, DocumentEvent> {
 public:
  EditEvent(int document, std::uint64_t sequence) : Event(document), sequence_(sequence) {}
  static const std::string& typeName() noexcept { return typeNameConstant("EditEvent"); }
  std::uint64_t sequence() const noexcept { return sequence_; }

 private:
  std::uint64_t sequence_;
};

class CommitEvent : public Event<CommitEvent, DocumentEvent> {
 public:
  using Event::Event;
  static const std::string& typeName() noexcept { return typeNameConstant("CommitEvent"); }
};

// An abstract class in the middle, and the helper over a hand-written base
// whose copy constructor is compiler-generated (it copies the whole list).
class ShapeEvent : public Event<ShapeEvent> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("ShapeEvent"); }
  virtual int corners() const = 0;
};
class SquareEvent : public Event<SquareEvent, ShapeEvent> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("SquareEvent"); }
  int corners() const override { return 4; }
};
class TaggedTestEvent : public Event<TaggedTestEvent, TestEvent> {
 public:
  using Event::Event;
  static const std::string& typeName() noexcept { return typeNameConstant("TaggedTestEvent"); }
};

const Names kEditNames{"EditEvent", "DocumentEvent", "BaseEvent"};

// Receives documents through member functions, on the dispatcher thread;
// read after a synchronous publish.
struct Editor {
  void onDocument(const DocumentEvent& event) { documents.push_back(event.document()); }
  void onEdit(const EditEvent& event) { edits.push_back(event.sequence()); }
  std::vector<int> documents;
  std::vector<std::uint64_t> edits;
};

void publish(const BaseEvent& event) { EventMgr::instance()->publish(event, true); }
unsigned subscriptions() { return EventMgr::instance()->getSubscriptionCount(); }
std::string describe(const BaseEvent& event) {
  std::ostringstream out;
  event.writeDescription(out);
  return out.str();
}

// Proves: every constructor, the copy (behind clone) included, names the chain; clone copies the whole object;
// an abstract class in the middle is neither rejected nor lost.
TEST(EventHelper, NamesTheChainInEveryConstructorAndClonesTheWholeObject) {
  const EditEvent edit(3, 9);
  EXPECT_EQ(edit.getTypes(), kEditNames);
  const std::unique_ptr<BaseEvent> clone(edit.clone());
  EXPECT_EQ(typeid(*clone), typeid(EditEvent));  // Copy-constructed: its members are the compiler's copies.
  EXPECT_EQ(clone->getTypes(), kEditNames);
  // The base part of a copy names only the base's chain.
  // NOLINTNEXTLINE(cppcoreguidelines-slicing): the base part of a copy is under test.
  EXPECT_EQ(DocumentEvent(edit).getTypes(), (Names{"DocumentEvent", "BaseEvent"}));

  // A handler may take the abstract class; the published square's clone reaches it.
  int corners = 0;
  const Subscription shapes = subscribe([&](const ShapeEvent& shape) { corners = shape.corners(); });
  publish(SquareEvent());
  EXPECT_EQ(corners, 4);

  const std::unique_ptr<BaseEvent> tagged(TaggedTestEvent(7).clone());
  EXPECT_EQ(tagged->getTypes(), (Names{"TaggedTestEvent", "TestEvent", "BaseEvent"}));
  EXPECT_EQ(static_cast<const TestEvent&>(*tagged).payload(), 7);
}

// The three description lines, with "::" after every name, the last too. "BaseEvent" ends every type list exactly
// once; assignment keeps an event's own list (clones carry it: every routing test routes a clone).
TEST(BaseEvent, DescriptionAndTypeListEndWithBaseEventAndSurviveAssignment) {
  EXPECT_EQ(describe(BaseEvent()), "VERSION 0\nTYPESLENGTH 1\nTYPES BaseEvent::\n");
  EXPECT_EQ(describe(ActionContainerEvent(boost::function0<void>())),
            "VERSION 0\nTYPESLENGTH 2\nTYPES ActionContainerEvent::BaseEvent::\n");
  EXPECT_EQ(describe(NamedEvent("Edit", 1)), "VERSION 0\nTYPESLENGTH 3\nTYPES Edit::TestEvent::BaseEvent::\n");
  struct Listed : BaseEvent {
    explicit Listed(Names names) : BaseEvent(std::move(names)) {}
  };
  EXPECT_EQ(Listed({"Explicit", "BaseEvent"}).getTypes(), (Names{"Explicit", "BaseEvent"}));
  EXPECT_EQ(Listed({}).getTypes(), Names{"BaseEvent"});
  NamedEvent derived("Edit", 1);
  static_cast<BaseEvent&>(derived) = BaseEvent();
  EXPECT_EQ(derived.getTypes(), (Names{"Edit", "TestEvent", "BaseEvent"}));
}

// The combined status word is first | third << 8 | second << 16, without masks. A default InputRequestEvent holds
// -1, -1, -1, false; clones (through the copy constructor) and assignment carry all four values.
TEST(InputRequestEvent, CombinedStatusAndValuesSurviveCopyCloneAndAssignment) {
  struct Case {
    std::int32_t first, second, third;
    std::uint32_t combined;
  };
  for (const Case& c : {Case{1, 2, 3, 0x00020301U},
                        Case{0x1FF, 0, 1, 0x1FFU},         // An over-wide first status spills into the third's byte.
                        Case{0, 0x12345, 0, 0x23450000U},  // Bits shifted past 31 are lost.
                        Case{0, 0, -1, 0xFFFFFF00U}, Case{-2, 0, 0, 0xFFFFFFFEU}, Case{-1, -1, -1, 0xFFFFFFFFU}}) {
    EXPECT_EQ(static_cast<std::uint32_t>(InputRequestEvent(c.first, c.second, c.third, false).getCombinedStatus()),
              c.combined)
        << c.first << ", " << c.second << ", " << c.third;
  }
  const auto values = [](const InputRequestEvent& event) {
    return std::make_tuple(event.getFirstStatus(), event.getSecondStatus(), event.getThirdStatus(), event.getFlag());
  };
  InputRequestEvent assigned;
  EXPECT_EQ(values(assigned), std::make_tuple(-1, -1, -1, false));
  const InputRequestEvent original(4, 5, 6, true);
  assigned = original;
  EXPECT_EQ(values(assigned), values(original));
  std::unique_ptr<InputRequestEvent> clone(original.clone());
  EXPECT_EQ(values(*clone), std::make_tuple(4, 5, 6, true));
  EXPECT_EQ(clone->getTypes(), (Names{"InputRequestEvent", "BaseEvent"}));
}

// Proves: handles (lambda, member; name, list, combined) deliver what they subscribed, only events of their handler's
// class, and, destroyed on any thread, withdraw exactly their own; a handle and a raw subscription of one handler, or
// two equal lambdas, are two subscribers.
TEST(SubscriptionHandle, DeliversAndWithdrawsExactlyWhatItSubscribed) {
  const unsigned before = subscriptions();
  Editor editor;
  std::vector<std::uint64_t> lambdaEdits;
  std::vector<std::uint64_t> batch;
  Subscription oneName = subscribe([&](const EditEvent& edit) { lambdaEdits.push_back(edit.sequence()); });
  Subscription twin = subscribe([&](const EditEvent& edit) { lambdaEdits.push_back(edit.sequence()); });
  Subscription list = subscribe(TypeList{"EditEvent", "CommitEvent"}, &editor, &Editor::onDocument);
  Subscription member = subscribe(&editor, &Editor::onEdit);
  EventMgr::instance()->subscribe(EditEvent::typeName(), &editor, &Editor::onEdit);
  Subscription combined = subscribeCombined({"EditEvent"}, {"CommitEvent"},
                                            [&](const EditEvent& edit) { batch.push_back(edit.sequence()); });
  EXPECT_EQ(subscriptions(), before + 8);
  twin.reset();
  EventMgr::instance()->unSubscribe(EditEvent::typeName(), &editor, &Editor::onEdit);
  EXPECT_EQ(subscriptions(), before + 6);

  publish(EditEvent(1, 10));
  publish(EditEvent(1, 11));
  EXPECT_TRUE(batch.empty());
  publish(CommitEvent(2));
  EXPECT_EQ(lambdaEdits, (std::vector<std::uint64_t>{10, 11}));
  EXPECT_EQ(editor.documents, (std::vector<int>{1, 1, 2}));
  EXPECT_EQ(editor.edits, (std::vector<std::uint64_t>{10, 11}));
  EXPECT_EQ(batch, (std::vector<std::uint64_t>{10, 11}));

  list.reset();
  EXPECT_FALSE(list.active());
  EXPECT_EQ(subscriptions(), before + 4);
  std::thread([handle = std::move(member)]() mutable { handle.reset(); }).join();
  EXPECT_EQ(subscriptions(), before + 3);
  {
    const Subscription leaving = std::move(combined);
    EXPECT_FALSE(combined.active());  // NOLINT(bugprone-use-after-move): moved-from owns nothing.
  }
  EXPECT_EQ(subscriptions(), before + 1);
  {
    // Edit handlers listed for CommitEvent: a commit is not of their class and reaches neither.
    const Subscription lambdaForCommits =
        subscribe(TypeList{"CommitEvent"}, [&](const EditEvent& edit) { lambdaEdits.push_back(edit.sequence()); });
    const Subscription memberForCommits = subscribe(TypeList{"CommitEvent"}, &editor, &Editor::onEdit);
    publish(EditEvent(1, 12));
    publish(CommitEvent(3));
  }
  EXPECT_EQ(lambdaEdits, (std::vector<std::uint64_t>{10, 11, 12}));
  EXPECT_EQ(editor.edits.size(), 2u);
  oneName = Subscription();  // Move-assignment withdraws what the handle owned.
  EXPECT_EQ(subscriptions(), before);
}

// Proves: a handle (lambda or member) reset in its own handler is not called again, neither by later names of the
// same delivery (list) nor by the rest of a batch (combined); other subscribers of the delivery still get it.
TEST(SubscriptionHandle, ResetInsideItsOwnHandlerEndsEverythingAtOnce) {
  const unsigned before = subscriptions();
  struct SelfEnding {
    void onEdit(const EditEvent& /*edit*/) {
      ++calls;
      handle.reset();
    }
    Subscription handle;
    int calls = 0;
  };
  int lambdaCalls = 0;
  int bystanderCalls = 0;
  Subscription lambdaHandle;
  SelfEnding member;
  Subscription bystander =
      subscribe(TypeList{"EditEvent", "DocumentEvent"}, [&](const BaseEvent&) { ++bystanderCalls; });
  const auto endingLambda = [&](const EditEvent&) {
    ++lambdaCalls;
    lambdaHandle.reset();
    // A subscribe made in a handler throws and leaves nothing behind.
    EXPECT_THROW(subscribe(TypeList{"A", "B"}, [](const BaseEvent&) {}), NotifyDeadlockException);
  };

  // List: the same EditEvent comes once per name.
  lambdaHandle = subscribe(TypeList{"EditEvent", "DocumentEvent"}, endingLambda);
  member.handle = subscribe(TypeList{"EditEvent", "DocumentEvent"}, &member, &SelfEnding::onEdit);
  publish(EditEvent(1, 1));
  EXPECT_EQ(lambdaCalls, 1);
  EXPECT_EQ(member.calls, 1);
  EXPECT_EQ(bystanderCalls, 2);
  EXPECT_EQ(subscriptions(), before + 2);
  // Combined: the first edit of the batch ends it.
  lambdaHandle = subscribeCombined({"EditEvent"}, {"CommitEvent"}, endingLambda);
  member.handle = subscribeCombined({"EditEvent"}, {"CommitEvent"}, &member, &SelfEnding::onEdit);
  for (std::uint64_t sequence = 0; sequence < 3; ++sequence) {
    publish(EditEvent(1, sequence));
  }
  publish(CommitEvent(1));
  EXPECT_EQ(lambdaCalls, 2);
  EXPECT_EQ(member.calls, 2);
  EXPECT_EQ(subscriptions(), before + 2);
  // One name, and nothing comes after the reset.
  lambdaHandle = subscribe(endingLambda);
  member.handle = subscribe(&member, &SelfEnding::onEdit);
  publish(EditEvent(1, 5));
  publish(EditEvent(1, 6));
  EXPECT_EQ(lambdaCalls, 3);
  EXPECT_EQ(member.calls, 3);
  bystander.reset();
  EXPECT_EQ(subscriptions(), before);
}

// Proves: a reset from another thread while the handler runs returns only
// after that call has ended. Interleaving: the dispatcher enters the handler
// and waits; the resetter thread starts reset(); the handler is released and
// checks that reset() has not returned yet.
TEST(SubscriptionHandle, ResetFromAnotherThreadWaitsForTheRunningHandler) {
  Gate entered;
  Gate resetStarting;
  std::atomic<bool> resetReturned{false};
  std::atomic<bool> returnedEarly{false};
  Subscription handle = subscribe([&](const EditEvent&) {
    entered.open();
    EXPECT_TRUE(resetStarting.wait());
    returnedEarly = resetReturned.load();
  });
  EventMgr::instance()->publish(EditEvent(1, 1), false);
  ASSERT_TRUE(entered.wait());
  std::thread resetter([&] {
    resetStarting.open();
    handle.reset();
    resetReturned = true;
  });
  resetter.join();
  EXPECT_FALSE(returnedEarly.load());
}

// Hand-written classes below NamedEvent, a hand-written class with clone(): one forgets clone(), one's copy
// constructor loses its name. No subscribe template sees them, so publish catches them in builds with assertions.
class LeafWithoutClone : public NamedEvent {
 public:
  LeafWithoutClone() : NamedEvent(Names{"LeafWithoutClone"}, 0) {}
};
class LeafLosingItsName : public NamedEvent {
 public:
  LeafLosingItsName() : NamedEvent(Names{"LeafLosingItsName"}, 0) {}
  // The mistake under test: the copy names only the classes above it.
  // NOLINTNEXTLINE(bugprone-copy-constructor-init)
  LeafLosingItsName(const LeafLosingItsName& /*other*/) : NamedEvent(Names{}, 0) {}
  LeafLosingItsName* clone() const override { return new LeafLosingItsName(*this); }
};
// A hand-written class below a helper class, without clone().
class HandWrittenBelowHelper : public DocumentEvent {
 public:
  HandWrittenBelowHelper() : DocumentEvent(1) {}
};

// Proves: each unfaithful copy aborts the publish with a message naming it.
TEST(PublishCheckDeathTest, AnUnfaithfulCopyAbortsWithAClearMessage) {
#ifdef NDEBUG
  GTEST_SKIP() << "checked only in builds with assertions";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(publish(LeafWithoutClone()),
               "clone\\(\\) of an event of class .*LeafWithoutClone returned an object "
               "of class .*NamedEvent.*does not override clone");
  EXPECT_DEATH(publish(LeafLosingItsName()),
               "has the type names TestEvent::BaseEvent:: instead of LeafLosingItsName::TestEvent::BaseEvent::");
  EXPECT_DEATH(publish(HandWrittenBelowHelper()), "does not override clone\\(\\)");
#endif
}

}  // namespace
