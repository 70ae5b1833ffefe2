// SPDX-License-Identifier: MIT
// A class defined with Event<Class, Base> that forgets typeName(): it would
// inherit Base's name.
// expect: the event class does not declare its own typeName\(\)
#include <string>

#include "vexutil/eventmgr/Event.h"

using vexutil::eventmgr::Event;

class Document : public Event<Document> {
 public:
  static const std::string& typeName() noexcept { return typeNameConstant("Document"); }
};
class Edit : public Event<Edit, Document> {};

Edit mistake() { return Edit(); }
