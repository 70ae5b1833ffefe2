// SPDX-License-Identifier: MIT
// The action event carries work to the dispatcher and a completion record
// that every copy shares.
#include "ActionContainerEvent.h"
#include "UnitTest.h"

using Clock = ActionContainerEvent::Clock;
using Action = boost::function0<void>;

namespace {
bool isDone(const ActionContainerEvent& event) {
  ActionContainerEvent::Lock lock(event.getMutex());
  return event.waitDone(lock, Clock::now());
}
}  // namespace

// execute marks the event done only after its action ran without throwing. Copies and clones share one
// completion: marking a copy (twice is harmless) completes the others.
TEST(ActionContainerEvent, ExecuteMarksDoneOnlyAfterSuccessAndCopiesShareCompletion) {
  int runs = 0;
  const ActionContainerEvent event{Action([&runs] { ++runs; })};
  event.execute();
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(isDone(event));
  const ActionContainerEvent empty{Action()};
  EXPECT_THROW(empty.execute(), boost::bad_function_call);
  const ActionContainerEvent failing{Action([] { throw 5; })};
  EXPECT_THROW(failing.execute(), int);
  EXPECT_FALSE(isDone(empty) || isDone(failing));
  std::unique_ptr<ActionContainerEvent> clone(empty.clone());
  const ActionContainerEvent copy(empty);  // NOLINT(performance-unnecessary-copy-initialization): a real copy.
  EXPECT_FALSE(isDone(*clone));
  copy.markDone();
  copy.markDone();
  EXPECT_TRUE(isDone(empty) && isDone(*clone));
}
