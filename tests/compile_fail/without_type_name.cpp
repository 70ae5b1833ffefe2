// SPDX-License-Identifier: MIT
// An event class that does not declare typeName(), reaching ClientAdapter.
// expect: the event class does not declare its own typeName\(\)
#include "vexutil/eventmgr/ClientAdapter.h"

class Nameless : public vexutil::eventmgr::BaseEvent {
 public:
  Nameless* clone() const override { return new Nameless(*this); }
};
struct Target {
  void on(const Nameless& /*event*/) {}
};

vexutil::eventmgr::ClientAdapter<Target, Nameless> mistake(Target* target) { return {target, &Target::on}; }
