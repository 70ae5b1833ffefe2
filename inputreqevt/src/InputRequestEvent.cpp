// SPDX-License-Identifier: MIT
#include "vexutil/inputreqevt/InputRequestEvent.h"

#include "TypeNames.h"

namespace vexutil {
namespace inputreqevt {

namespace {

const std::string kInputRequestEventTypeName VEXUTIL_EARLY_STATIC("InputRequestEvent");

// The type list is built afresh by every constructor, never copied.
std::vector<std::string> ownTypeList() { return {kInputRequestEventTypeName}; }

}  // namespace

const std::string& InputRequestEvent::typeName() noexcept { return kInputRequestEventTypeName; }

InputRequestEvent::InputRequestEvent() : InputRequestEvent(-1, -1, -1, false) {}

InputRequestEvent::InputRequestEvent(std::int32_t firstStatus, std::int32_t secondStatus, std::int32_t thirdStatus,
                                     bool flag)
    : BaseEvent(ownTypeList()),
      firstStatus_(firstStatus),
      secondStatus_(secondStatus),
      thirdStatus_(thirdStatus),
      flag_(flag) {}

InputRequestEvent::InputRequestEvent(const InputRequestEvent& other)
    : BaseEvent(ownTypeList()),
      firstStatus_(other.firstStatus_),
      secondStatus_(other.secondStatus_),
      thirdStatus_(other.thirdStatus_),
      flag_(other.flag_) {}

InputRequestEvent& InputRequestEvent::operator=(const InputRequestEvent& other) {
  firstStatus_ = other.firstStatus_;
  secondStatus_ = other.secondStatus_;
  thirdStatus_ = other.thirdStatus_;
  flag_ = other.flag_;
  return *this;
}

InputRequestEvent::~InputRequestEvent() = default;

InputRequestEvent* InputRequestEvent::clone() const { return new InputRequestEvent(*this); }

std::int32_t InputRequestEvent::getCombinedStatus() const noexcept {
  // Unsigned arithmetic: the shifts drop bits past bit 31 without the
  // undefined behaviour of shifting negative signed values.
  const auto first = static_cast<std::uint32_t>(firstStatus_);
  const auto second = static_cast<std::uint32_t>(secondStatus_);
  const auto third = static_cast<std::uint32_t>(thirdStatus_);
  return static_cast<std::int32_t>(first | (third << 8U) | (second << 16U));
}

}  // namespace inputreqevt
}  // namespace vexutil
