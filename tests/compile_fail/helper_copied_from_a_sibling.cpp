// SPDX-License-Identifier: MIT
// A class copied from its sibling that kept the sibling's Event<> argument:
// its clone() would copy it as the sibling.
// expect: the event class does not override clone\(\)
#include <string>

#include "vexutil/eventmgr/Event.h"
#include "vexutil/eventmgr/Subscription.h"

using vexutil::eventmgr::Event;

class Document : public Event<Document> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("Document"); }
};
class Edit : public Event<Edit, Document> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("Edit"); }
};
class Commit : public Event<Edit, Document> {
 public:
  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("Commit");
    return *name;
  }
};

vexutil::eventmgr::Subscription mistake() {
  return vexutil::eventmgr::subscribe([](const Commit& /*event*/) {});
}
