// SPDX-License-Identifier: MIT
// An intermediate event class without clone(), under a class with one,
// reaching a lambda subscription.
// expect: the event class does not override clone\(\)
#include <string>

#include "vexutil/eventmgr/Event.h"
#include "vexutil/eventmgr/Subscription.h"

using vexutil::eventmgr::Event;

class Document : public Event<Document> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("Document"); }
};
class Edit : public Document {
 public:
  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("Edit");
    return *name;
  }
};

vexutil::eventmgr::Subscription mistake() {
  return vexutil::eventmgr::subscribe([](const Edit& /*event*/) {});
}
