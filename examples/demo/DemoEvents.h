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
// them.
#ifndef VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H
#define VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vexutil/eventmgr/BaseEvent.h"

namespace demo {

using Clock = std::chrono::steady_clock;

// The intermediate base class. It can be published on its own, and it lets
// classes derived from it add their names in front of its own.
class DocumentEvent : public vexutil::eventmgr::BaseEvent {
 public:
  DocumentEvent(int document, int author) : DocumentEvent(std::vector<std::string>(), document, author) {}
  // Builds the type list afresh, as every constructor does, and copies the
  // values (the time stamp included).
  DocumentEvent(const DocumentEvent& other) : DocumentEvent(std::vector<std::string>(), other) {}
  DocumentEvent& operator=(const DocumentEvent&) = delete;  // Events are immutable.
  ~DocumentEvent() override = default;

  DocumentEvent* clone() const override { return new DocumentEvent(*this); }

  // A constant that is never destroyed: the manager may compare names while
  // the process exits.
  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("DocumentEvent");
    return *name;
  }

  int document() const noexcept { return document_; }
  int author() const noexcept { return author_; }
  Clock::time_point madeAt() const noexcept { return madeAt_; }

 protected:
  // For derived classes: their own names, most derived first. This class
  // appends "DocumentEvent"; BaseEvent appends "BaseEvent".
  DocumentEvent(std::vector<std::string> derivedTypes, int document, int author)
      : BaseEvent(withOwnName(std::move(derivedTypes))), document_(document), author_(author), madeAt_(Clock::now()) {}

  // The copy constructor of a derived class: its names and `other`'s values.
  DocumentEvent(std::vector<std::string> derivedTypes, const DocumentEvent& other)
      : BaseEvent(withOwnName(std::move(derivedTypes))),
        document_(other.document_),
        author_(other.author_),
        madeAt_(other.madeAt_) {}

 private:
  static std::vector<std::string> withOwnName(std::vector<std::string> types) {
    types.push_back(typeName());
    return types;
  }

  int document_;
  int author_;
  Clock::time_point madeAt_;
};

class EditEvent : public DocumentEvent {
 public:
  EditEvent(int document, int author, std::uint64_t sequence)
      : DocumentEvent({typeName()}, document, author), sequence_(sequence) {}
  EditEvent(const EditEvent& other) : DocumentEvent({typeName()}, other), sequence_(other.sequence_) {}
  EditEvent& operator=(const EditEvent&) = delete;
  ~EditEvent() override = default;

  EditEvent* clone() const override { return new EditEvent(*this); }

  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("EditEvent");
    return *name;
  }

  std::uint64_t sequence() const noexcept { return sequence_; }

 private:
  std::uint64_t sequence_;
};

class CommitEvent : public DocumentEvent {
 public:
  CommitEvent(int document, int author) : DocumentEvent({typeName()}, document, author) {}
  CommitEvent(const CommitEvent& other) : DocumentEvent({typeName()}, other) {}
  CommitEvent& operator=(const CommitEvent&) = delete;
  ~CommitEvent() override = default;

  CommitEvent* clone() const override { return new CommitEvent(*this); }

  static const std::string& typeName() noexcept {
    static const std::string* const name = new std::string("CommitEvent");
    return *name;
  }
};

}  // namespace demo

#endif  // VEXUTIL_EXAMPLES_DEMO_DEMOEVENTS_H
