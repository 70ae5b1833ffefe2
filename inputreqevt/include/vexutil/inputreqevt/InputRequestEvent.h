// SPDX-License-Identifier: MIT
/// \file
/// InputRequestEvent: announces that a host component requests input.
///
/// ### Overview
/// It carries three 32-bit status values and a flag, and packs the status
/// values into one word with getCombinedStatus(). Subscribers receive it by
/// the type name "InputRequestEvent"; its type list is "InputRequestEvent",
/// "BaseEvent". It is also the model for host-defined events (see BaseEvent).
///
/// ### Thread safety
/// Immutable after construction; const members may be called from several
/// threads at once.
#ifndef VEXUTIL_INPUTREQEVT_INPUTREQUESTEVENT_H
#define VEXUTIL_INPUTREQEVT_INPUTREQUESTEVENT_H

#include <cstdint>
#include <string>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace inputreqevt {

/// The library's own event: a component requests input; see
/// InputRequestEvent.h.
///
/// \par Thread
/// Any thread may make, copy, publish and read it; a published event is only
/// read from then on.
class VEXUTIL_API InputRequestEvent : public eventmgr::BaseEvent {
 public:
  /// Status values -1, -1, -1 and flag false: an event made without arguments.
  /// Any thread; throws std::bad_alloc when memory runs out.
  InputRequestEvent();
  /// Stores the four values unchanged; nothing is validated.
  /// Any thread; throws std::bad_alloc when memory runs out.
  InputRequestEvent(std::int32_t firstStatus, std::int32_t secondStatus, std::int32_t thirdStatus, bool flag);
  /// Builds the type list afresh and copies the four values.
  /// Any thread; throws std::bad_alloc when memory runs out.
  InputRequestEvent(const InputRequestEvent& other);
  /// Copies the four values; the type list stays as it is (it is the same for
  /// every InputRequestEvent). Any thread, while no other thread reads
  /// `*this`.
  InputRequestEvent& operator=(const InputRequestEvent& other);
  /// Any thread.
  ~InputRequestEvent() override;

  /// A new InputRequestEvent copied from this one; the caller owns it.
  /// Any thread; throws std::bad_alloc when memory runs out.
  InputRequestEvent* clone() const override;

  /// The three status values in one word, by bitwise OR without masks:
  /// first | third << 8 | second << 16 (32-bit shifts). Values wider than 8
  /// bits, or negative ones, spill into the neighbouring fields on purpose;
  /// (1, 2, 3) gives 0x00020301. Any thread.
  std::int32_t getCombinedStatus() const noexcept;

  /// The first status value. Any thread.
  std::int32_t getFirstStatus() const noexcept { return firstStatus_; }
  /// The second status value. Any thread.
  std::int32_t getSecondStatus() const noexcept { return secondStatus_; }
  /// The third status value. Any thread.
  std::int32_t getThirdStatus() const noexcept { return thirdStatus_; }
  /// The flag. Any thread.
  bool getFlag() const noexcept { return flag_; }

  /// "InputRequestEvent": a constant built when the library is loaded.
  /// Any thread, from the library's load until its unload.
  static const std::string& typeName() noexcept;

 private:
  std::int32_t firstStatus_;
  std::int32_t secondStatus_;
  std::int32_t thirdStatus_;
  bool flag_;
};

}  // namespace inputreqevt
}  // namespace vexutil

#endif  // VEXUTIL_INPUTREQEVT_INPUTREQUESTEVENT_H
