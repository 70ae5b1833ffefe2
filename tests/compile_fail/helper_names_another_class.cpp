// SPDX-License-Identifier: MIT
// Event<Class, Base> whose first argument is not the class being defined:
// the class was meant to be Event<Edit, Document>.
// expect: the first argument must be the class being defined
#include <string>

#include "vexutil/eventmgr/Event.h"

class Document : public vexutil::eventmgr::BaseEvent {
 public:
  Document* clone() const override { return new Document(*this); }
  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("Document");
    return *name;
  }
};
class Edit : public vexutil::eventmgr::Event<Document> {};

Edit mistake() { return Edit(); }
