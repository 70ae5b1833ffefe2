// SPDX-License-Identifier: MIT
// The demo's own events, defined the way a host component defines them.
//
//   BaseEvent
//     DocumentEvent   "DocumentEvent"  something happened to a document
//       EditEvent     "EditEvent"      one edit
//       CommitEvent   "CommitEvent"    the edits so far are final
//
// A subscriber to "DocumentEvent" receives edits and commits alike; a
// subscriber to "EditEvent" receives edits only. Every event carries the time
// it was made, so that subscribers can measure how long it took to reach
// them. Event<Class, Base> names each class's chain in every constructor, the
// copy included, and supplies clone(). Events are immutable once made, so
// their data are public constants.
#ifndef VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H
#define VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "vexutil/eventmgr/Event.h"

namespace demo {

using Clock = std::chrono::steady_clock;

class DocumentEvent : public vexutil::eventmgr::Event<DocumentEvent> {
 public:
  DocumentEvent(int inDocument, int byAuthor) : document(inDocument), author(byAuthor), madeAt(Clock::now()) {}
  static const std::string& typeName() noexcept { return typeNameConstant("DocumentEvent"); }
  const int document;
  const int author;
  const Clock::time_point madeAt;
};

class EditEvent : public vexutil::eventmgr::Event<EditEvent, DocumentEvent> {
 public:
  EditEvent(int inDocument, int byAuthor, std::uint64_t number) : Event(inDocument, byAuthor), sequence(number) {}
  static const std::string& typeName() noexcept { return typeNameConstant("EditEvent"); }
  const std::uint64_t sequence;
};

class CommitEvent : public vexutil::eventmgr::Event<CommitEvent, DocumentEvent> {
 public:
  using Event::Event;
  static const std::string& typeName() noexcept { return typeNameConstant("CommitEvent"); }
};

}  // namespace demo

#endif  // VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H
