// Events carry their type chain, clone themselves and describe themselves;
// adapters call member functions only for events of their type.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <sstream>

#include "ActionContainerEvent.h"
#include "TestSupport.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"

using vexutil::eventmgr::ActionContainerEvent;
using vexutil::eventmgr::BaseEvent;
using vexutil::eventmgr::ClientAdapter;
using vexutil::eventmgr::ClientProxy;
using vexutil::inputreqevt::InputRequestEvent;
using vexutil::testing_support::DerivedTestEvent;
using vexutil::testing_support::Recorder;
using vexutil::testing_support::TestEvent;

namespace {
std::string describe(const BaseEvent& event) {
  std::ostringstream out;
  event.writeDescription(out);
  return out.str();
}
}  // namespace

// The three description lines, with "::" after every name, the last too.
TEST(BaseEvent, DescriptionListsTypesWithTrailingSeparators) {
  EXPECT_EQ(describe(BaseEvent()), "VERSION 0\nTYPESLENGTH 1\nTYPES BaseEvent::\n");
  EXPECT_EQ(describe(ActionContainerEvent(boost::function0<void>())),
            "VERSION 0\nTYPESLENGTH 2\nTYPES ActionContainerEvent::BaseEvent::\n");
  EXPECT_EQ(describe(DerivedTestEvent(1)),
            "VERSION 0\nTYPESLENGTH 3\nTYPES DerivedTestEvent::TestEvent::BaseEvent::\n");
}

// Every event's list ends with "BaseEvent", whatever a derived class passes.
TEST(BaseEvent, TypeListAlwaysEndsWithBaseEvent) {
  struct Explicit : BaseEvent {
    Explicit() : BaseEvent({"Explicit", "BaseEvent"}) {}
  };
  struct Empty : BaseEvent {
    Empty() : BaseEvent(std::vector<std::string>{}) {}
  };
  EXPECT_EQ(Explicit().getTypes(), (std::vector<std::string>{"Explicit", "BaseEvent"}));
  EXPECT_EQ(Empty().getTypes(), (std::vector<std::string>{"BaseEvent"}));
  EXPECT_EQ(DerivedTestEvent().getTypes(),
            (std::vector<std::string>{"DerivedTestEvent", "TestEvent", "BaseEvent"}));
}

// A clone is a distinct object of the same class with an equal type list.
TEST(BaseEvent, CloneIsADistinctCopyOfTheSameClass) {
  const DerivedTestEvent original(7);
  std::unique_ptr<BaseEvent> copy(original.clone());
  ASSERT_NE(copy.get(), &original);
  EXPECT_EQ(copy->getTypes(), original.getTypes());
  const auto* typed = dynamic_cast<const DerivedTestEvent*>(copy.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->payload(), 7);

  std::unique_ptr<BaseEvent> plain(BaseEvent().clone());
  EXPECT_EQ(plain->getTypes(), std::vector<std::string>{"BaseEvent"});
}

// The combined status word packs first | third << 8 | second << 16 without masks.
TEST(InputRequestEvent, CombinedStatusPacksFieldsWithoutMasks) {
  EXPECT_EQ(InputRequestEvent(1, 2, 3, false).getCombinedStatus(), 131841);
  EXPECT_EQ(InputRequestEvent(5, 0, 0, false).getCombinedStatus(), 5);
  EXPECT_EQ(InputRequestEvent(0, 5, 0, false).getCombinedStatus(), 327680);
  EXPECT_EQ(InputRequestEvent(0, 0, 5, false).getCombinedStatus(), 1280);
  EXPECT_EQ(InputRequestEvent(511, 0, 0, false).getCombinedStatus(), 511);
  EXPECT_EQ(InputRequestEvent(0, 0, -1, false).getCombinedStatus(), -256);
  // An over-wide first status spills into the third's byte; bits past 31 are lost.
  EXPECT_EQ(static_cast<std::uint32_t>(InputRequestEvent(0x1FF, 0, 0x1, false).getCombinedStatus()), 0x1FFU);
  EXPECT_EQ(static_cast<std::uint32_t>(InputRequestEvent(0, 0x12345, 0, false).getCombinedStatus()), 0x23450000U);
  EXPECT_EQ(static_cast<std::uint32_t>(InputRequestEvent(-2, 0, 0, false).getCombinedStatus()), 0xFFFFFFFEU);
}

// A default event has -1 statuses, flag false and all 32 bits set.
TEST(InputRequestEvent, DefaultEventHasAllBitsSet) {
  const InputRequestEvent event;
  EXPECT_EQ(event.getFirstStatus(), -1);
  EXPECT_EQ(event.getSecondStatus(), -1);
  EXPECT_EQ(event.getThirdStatus(), -1);
  EXPECT_FALSE(event.getFlag());
  EXPECT_EQ(event.getCombinedStatus(), -1);
}

// Copies and clones carry the four values and a fresh two-name list.
TEST(InputRequestEvent, CopiesAndClonesCarryValuesAndTypeList) {
  const InputRequestEvent original(4, 5, 6, true);
  const InputRequestEvent copy(original);
  std::unique_ptr<InputRequestEvent> clone(original.clone());
  for (const InputRequestEvent* event : std::vector<const InputRequestEvent*>{&copy, clone.get()}) {
    EXPECT_EQ(event->getTypes(), (std::vector<std::string>{"InputRequestEvent", "BaseEvent"}));
    EXPECT_EQ(event->getFirstStatus(), 4);
    EXPECT_EQ(event->getSecondStatus(), 5);
    EXPECT_EQ(event->getThirdStatus(), 6);
    EXPECT_TRUE(event->getFlag());
  }
}

namespace {
struct Target {
  int calls = 0;
  int other = 0;
  void onAction(const ActionContainerEvent& /*event*/) { ++calls; }
  void onBase(const BaseEvent& /*event*/) { ++calls; }
  void onOtherBase(const BaseEvent& /*event*/) { ++other; }
};
}  // namespace

// An adapter calls its member function only for events of its Event type.
TEST(ClientAdapter, FiltersByEventTypeName) {
  Target target;
  const ClientAdapter<Target, ActionContainerEvent> actionAdapter(&target, &Target::onAction);
  actionAdapter.notify(BaseEvent());
  EXPECT_EQ(target.calls, 0);
  actionAdapter.notify(ActionContainerEvent(boost::function0<void>()));
  EXPECT_EQ(target.calls, 1);

  const ClientAdapter<Target, BaseEvent> baseAdapter(&target, &Target::onBase);
  baseAdapter.notify(InputRequestEvent());
  EXPECT_EQ(target.calls, 2);
}

// A null object or member function makes notify() a no-op.
TEST(ClientAdapter, NullTargetOrHandlerDoesNothing) {
  Target target;
  const ClientAdapter<Target, BaseEvent> noTarget(nullptr, &Target::onBase);
  const ClientAdapter<Target, BaseEvent> noHandler(&target, nullptr);
  noTarget.notify(BaseEvent());
  noHandler.notify(BaseEvent());
  EXPECT_EQ(target.calls, 0);
}

// Identity: one class id per Target/Event pair, the object address as instance id.
TEST(ClientAdapter, IdentityIsPairAndObject) {
  Target first;
  Target second;
  const ClientAdapter<Target, BaseEvent> a(&first, &Target::onBase);
  const ClientAdapter<Target, BaseEvent> sameObjectOtherHandler(&first, &Target::onOtherBase);
  const ClientAdapter<Target, BaseEvent> otherObject(&second, &Target::onBase);
  const ClientAdapter<Target, ActionContainerEvent> otherPair(&first, &Target::onAction);
  const ClientAdapter<Recorder, BaseEvent> otherTarget(nullptr, &Recorder::onBase);

  EXPECT_EQ(a.getClassId(), sameObjectOtherHandler.getClassId());
  EXPECT_EQ(a.getInstanceId(), sameObjectOtherHandler.getInstanceId());
  EXPECT_TRUE(vexutil::eventmgr::sameSubscriber(a, sameObjectOtherHandler));
  EXPECT_EQ(a.getClassId(), otherObject.getClassId());
  EXPECT_NE(a.getInstanceId(), otherObject.getInstanceId());
  EXPECT_NE(a.getClassId(), otherPair.getClassId());
  EXPECT_NE(a.getClassId(), otherTarget.getClassId());
  EXPECT_EQ(a.getInstanceId(), reinterpret_cast<std::uintptr_t>(&first));
}

// The client ordering: same class by instance id; different classes each less than the other.
TEST(ClientOrdering, SameClassByInstanceIdOtherwiseMutuallyLess) {
  Target low;
  Target high;
  Target* lowPtr = &low < &high ? &low : &high;
  Target* highPtr = &low < &high ? &high : &low;
  const ClientAdapter<Target, BaseEvent> a(lowPtr, &Target::onBase);
  const ClientAdapter<Target, BaseEvent> b(highPtr, &Target::onBase);
  const ClientAdapter<Target, BaseEvent> aAgain(lowPtr, &Target::onOtherBase);
  const ClientAdapter<Target, ActionContainerEvent> c(lowPtr, &Target::onAction);
  using vexutil::eventmgr::clientLess;
  EXPECT_TRUE(clientLess(a, b));
  EXPECT_FALSE(clientLess(b, a));
  EXPECT_FALSE(clientLess(a, a));
  EXPECT_FALSE(clientLess(a, aAgain));
  EXPECT_FALSE(clientLess(aAgain, a));
  EXPECT_TRUE(clientLess(a, c));
  EXPECT_TRUE(clientLess(c, a));
}

// Assignment never changes an event's type list, even across classes.
TEST(BaseEvent, AssignmentKeepsTheOwnTypeList) {
  DerivedTestEvent derived(1);
  BaseEvent& asBase = derived;
  asBase = BaseEvent();
  EXPECT_EQ(derived.getTypes(), (std::vector<std::string>{"DerivedTestEvent", "TestEvent", "BaseEvent"}));
  InputRequestEvent input(1, 2, 3, true);
  input = InputRequestEvent();
  EXPECT_EQ(input.getTypes(), (std::vector<std::string>{"InputRequestEvent", "BaseEvent"}));
  EXPECT_EQ(input.getCombinedStatus(), -1);
}
