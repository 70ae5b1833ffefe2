// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/BaseEvent.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "TypeNames.h"

namespace vexutil {
namespace eventmgr {

namespace {
const std::string kBaseEventTypeName VEXUTIL_EARLY_STATIC("BaseEvent");
}  // namespace

const std::string& BaseEvent::typeName() noexcept { return kBaseEventTypeName; }

BaseEvent::BaseEvent() : types_(1, kBaseEventTypeName) {}

BaseEvent::BaseEvent(std::vector<std::string> typeList) : types_(std::move(typeList)) {
  if (types_.empty() || types_.back() != kBaseEventTypeName) {
    types_.push_back(kBaseEventTypeName);
  }
}

BaseEvent::BaseEvent(const BaseEvent& other) = default;
// The type list names the object's own class, so assignment leaves it alone:
// copying it from an event of another class would make this one claim a
// class it is not.
BaseEvent& BaseEvent::operator=(const BaseEvent& /*other*/) { return *this; }
BaseEvent::~BaseEvent() = default;

BaseEvent* BaseEvent::clone() const { return new BaseEvent(*this); }

std::ostream& BaseEvent::writeDescription(std::ostream& out) const {
  // The version is fixed at 0 and written as a floating-point value.
  out << "VERSION " << 0.0 << '\n';
  out << "TYPESLENGTH " << static_cast<unsigned long>(types_.size()) << '\n';
  out << "TYPES ";
  for (const std::string& name : types_) {
    out << name << "::";
  }
  out << '\n';
  return out;
}

bool BaseEvent::isOfType(const std::string& typeName) const noexcept {
  return std::find(types_.begin(), types_.end(), typeName) != types_.end();
}

}  // namespace eventmgr
}  // namespace vexutil
