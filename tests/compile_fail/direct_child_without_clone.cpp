// SPDX-License-Identifier: MIT
// A direct child of BaseEvent that does not override clone(), reaching the
// raw member-function subscribe.
// expect: the event class does not override clone\(\), so a published copy would be of its base class
#include <string>

#include "vexutil/eventmgr/EventMgr.h"

class NoClone : public vexutil::eventmgr::BaseEvent {
 public:
  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("NoClone");
    return *name;
  }
};
struct Target {
  void on(const NoClone& /*event*/) {}
};

void mistake(Target& target) { vexutil::eventmgr::EventMgr::instance()->subscribe("NoClone", &target, &Target::on); }
