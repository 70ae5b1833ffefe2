// SPDX-License-Identifier: MIT
// Events carry their type chain, clone and describe themselves (client ordering:
// ProxyMailer.OrderingFollowsClientThenSets).
#include <tuple>

#include "ActionContainerEvent.h"
#include "UnitTest.h"

namespace {
std::string describe(const BaseEvent& event) {
  std::ostringstream out;
  event.writeDescription(out);
  return out.str();
}
}  // namespace

// The three description lines, with "::" after every name, the last too. "BaseEvent" ends every type list exactly
// once; assignment keeps an event's own list and clones carry it.
TEST(BaseEvent, DescriptionAndTypeListEndWithBaseEventAndSurviveAssignment) {
  EXPECT_EQ(describe(BaseEvent()), "VERSION 0\nTYPESLENGTH 1\nTYPES BaseEvent::\n");
  EXPECT_EQ(describe(ActionContainerEvent(boost::function0<void>())),
            "VERSION 0\nTYPESLENGTH 2\nTYPES ActionContainerEvent::BaseEvent::\n");
  EXPECT_EQ(describe(NamedEvent("Edit", 1)), "VERSION 0\nTYPESLENGTH 3\nTYPES Edit::TestEvent::BaseEvent::\n");
  struct Explicit : BaseEvent {
    Explicit() : BaseEvent({"Explicit", "BaseEvent"}) {}
  };
  struct Empty : BaseEvent {
    Empty() : BaseEvent(Names{}) {}
  };
  EXPECT_EQ(Explicit().getTypes(), (Names{"Explicit", "BaseEvent"}));
  EXPECT_EQ(Empty().getTypes(), Names{"BaseEvent"});
  NamedEvent derived("Edit", 1);
  static_cast<BaseEvent&>(derived) = BaseEvent();
  EXPECT_EQ(derived.getTypes(), (Names{"Edit", "TestEvent", "BaseEvent"}));
  EXPECT_EQ(std::unique_ptr<BaseEvent>(derived.clone())->getTypes(), derived.getTypes());
}

// The combined status word is first | third << 8 | second << 16, without masks. A default InputRequestEvent holds
// -1, -1, -1, false; copies, clones and assignment carry all four values.
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
  EXPECT_EQ(values(InputRequestEvent(original)), values(original));
  std::unique_ptr<InputRequestEvent> clone(original.clone());
  EXPECT_EQ(values(*clone), std::make_tuple(4, 5, 6, true));
  EXPECT_EQ(clone->getTypes(), (Names{"InputRequestEvent", "BaseEvent"}));
}
