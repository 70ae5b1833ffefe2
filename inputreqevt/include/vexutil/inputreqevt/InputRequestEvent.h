// InputRequestEvent: announces that a host component requests input.
//
// Overview
//   It carries three 32-bit status values and a flag, and packs the status
//   values into one word with getCombinedStatus(). Subscribers receive it by
//   the type name "InputRequestEvent"; its type list is "InputRequestEvent",
//   "BaseEvent". It is also the model for host-defined events (see BaseEvent).
//
// Thread safety: immutable after construction; const members may be called
// from several threads at once.
#ifndef VEXUTIL_INPUTREQEVT_INPUTREQUESTEVENT_H
#define VEXUTIL_INPUTREQEVT_INPUTREQUESTEVENT_H

#include <cstdint>
#include <string>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace inputreqevt {

class VEXUTIL_API InputRequestEvent : public eventmgr::BaseEvent {
 public:
  // Status values -1, -1, -1 and flag false: an event made without arguments.
  InputRequestEvent();
  // Stores the four values unchanged; nothing is validated.
  InputRequestEvent(std::int32_t firstStatus, std::int32_t secondStatus, std::int32_t thirdStatus, bool flag);
  // Builds the type list afresh and copies the four values.
  InputRequestEvent(const InputRequestEvent& other);
  InputRequestEvent& operator=(const InputRequestEvent& other);
  ~InputRequestEvent() override;

  // A new InputRequestEvent copied from this one; the caller owns it.
  InputRequestEvent* clone() const override;

  // The three status values in one word, by bitwise OR without masks:
  // first | third << 8 | second << 16 (32-bit shifts). Values wider than 8
  // bits, or negative ones, spill into the neighbouring fields on purpose;
  // (1, 2, 3) gives 0x00020301.
  std::int32_t getCombinedStatus() const noexcept;

  std::int32_t getFirstStatus() const noexcept { return firstStatus_; }
  std::int32_t getSecondStatus() const noexcept { return secondStatus_; }
  std::int32_t getThirdStatus() const noexcept { return thirdStatus_; }
  bool getFlag() const noexcept { return flag_; }

  // "InputRequestEvent".
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
