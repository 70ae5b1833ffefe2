// SPDX-License-Identifier: MIT
/// \file
/// BaseEvent: the base class of every event that passes through the event
/// manager.
///
/// ### Overview
/// An event carries the list of the type names of its class chain, most
/// derived first and "BaseEvent" last. The manager routes an event by these
/// names, and a subscriber's adapter checks them before it casts the event to
/// the class that the subscriber expects. Events are handed to the manager by
/// reference; the manager copies them with clone() and shares the copy by
/// boost::shared_ptr from then on.
///
/// ### Defining an event type
/// The short way is the Event<Class, Base> helper of Event.h: the class then
/// declares only its name, its data and its constructors.
///
/// By hand, a host event class derives (directly or through another event
/// class) from BaseEvent and provides three things:
/// * a static `typeName()` returning a reference to a constant string that
///   names the class (routing and the adapter's type test use it);
/// * constructors, the copy constructor included, that pass the class's own
///   name, followed by the names of the classes between it and BaseEvent, to
///   the protected BaseEvent constructor;
/// * an override of clone() that returns `new Class(*this)`.
///
/// See InputRequestEvent for a complete example. EventChecks.h lists what the
/// subscribe templates check about such a class at compile time, and what a
/// publish checks at run time.
///
/// ### Thread safety
/// An event is immutable once published: the manager and every subscriber
/// only read it, possibly on different threads. Distinct objects need no
/// locking; a const event may be read by several threads at once.
#ifndef VEXUTIL_EVENTMGR_BASEEVENT_H
#define VEXUTIL_EVENTMGR_BASEEVENT_H

#include <algorithm>
#include <iosfwd>
#include <string>
#include <vector>

#include "vexutil/Export.h"

namespace vexutil {
namespace eventmgr {

/// The base class of every event; see BaseEvent.h for how to derive from it.
///
/// \par Thread
/// Any thread may make, copy and destroy events. A published event is only
/// read from then on, by the dispatcher thread and by whoever holds a copy.
class VEXUTIL_API BaseEvent {
 public:
  /// Makes an event whose type list is just "BaseEvent".
  /// \par Thread
  /// Any thread. Throws std::bad_alloc when memory runs out.
  BaseEvent();
  /// Copies the type list of `other`.
  /// \par Thread
  /// Any thread; `other` may be read by other threads at the same time.
  BaseEvent(const BaseEvent& other);
  /// Keeps this event's own type list: it names the object's class, which
  /// assignment does not change, so assigning across classes cannot make an
  /// event claim a class it is not.
  /// \par Thread
  /// Any thread, while no other thread reads `*this`.
  BaseEvent& operator=(const BaseEvent& other);
  /// \par Thread
  /// Any thread. The manager destroys its copies on whichever thread lets go
  /// of the last reference (usually the dispatcher thread). The dispatcher
  /// destroys the copies of asynchronous publishes a few at a time after
  /// their delivery, at the latest when it finds the queue empty, and never
  /// under a lock of the manager.
  virtual ~BaseEvent();

  /// Returns a new heap copy of this event of the same dynamic class; the
  /// caller owns it. Every derived class overrides it to copy itself whole.
  /// Throws std::bad_alloc when memory runs out.
  /// \pre Every class between the dynamic class and BaseEvent overrides it: a
  ///      class that does not would be published as a plain BaseEvent that
  ///      still carries the derived type names, and a subscriber's cast to the
  ///      derived class would be undefined.
  /// \post The copy has the same type list and values as this event.
  /// \par Thread
  /// Any thread; const. The manager calls it on the publishing thread (and a
  /// combined subscription on the dispatcher thread). A null result means
  /// "nothing to publish": the manager then drops the event.
  virtual BaseEvent* clone() const;

  /// Writes the event's description to `out` and returns `out`: three lines,
  /// "VERSION 0", "TYPESLENGTH <n>" and "TYPES <name>::<name>::...::",
  /// each followed by a line end. Derived classes inherit it unchanged.
  /// \par Thread
  /// Any thread; const. `out` must not be used by another thread meanwhile.
  /// Stream errors are left in the stream's state; nothing is thrown unless
  /// the stream throws.
  virtual std::ostream& writeDescription(std::ostream& out) const;

  /// The type names of the event's class chain, most derived first and
  /// "BaseEvent" last. Never empty.
  /// \par Thread
  /// Any thread; the reference stays valid as long as the event.
  const std::vector<std::string>& getTypes() const noexcept { return types_; }

  /// True when `typeName` is one of the event's type names (exact,
  /// case-sensitive comparison).
  /// \par Thread
  /// Any thread.
  bool isOfType(const std::string& typeName) const noexcept;

  /// "BaseEvent": the type name of this class, a constant built when the
  /// library is loaded.
  /// \par Thread
  /// Any thread, from the library's load until its unload (also during static
  /// destruction at exit).
  static const std::string& typeName() noexcept;

 protected:
  /// For derived classes: `typeList` holds the type names from the most
  /// derived class down to, but not necessarily including, "BaseEvent".
  /// "BaseEvent" is appended unless the list already ends with it, so every
  /// event's list ends with "BaseEvent" (an empty list becomes just that).
  /// \pre The names are the `typeName()` values of the classes, most derived
  ///      first; the manager and the adapters match them exactly.
  /// \post The manager routes the event by every name, duplicates and empty
  ///       names included. A host event that carries the name of the
  ///       manager's internal requests ("ActionContainerEvent") reaches the
  ///       subscribers of that name like any other and is otherwise ignored.
  /// \par Thread
  /// Any thread. Throws std::bad_alloc when memory runs out.
  explicit BaseEvent(std::vector<std::string> typeList);

  /// For the constructors of Event<Class, Base> (Event.h), which run after the
  /// constructor of a base class that named only its own chain: makes `name`
  /// the first type name. `copiedFrom` is the event being copied, or null for
  /// any other constructor. A copy takes its list from `copiedFrom`, from
  /// `name` onwards, so that a base class whose copy constructor copied the
  /// whole list (a compiler-generated one) still yields the right chain;
  /// otherwise `name` goes in front of the base class's list.
  /// \par Thread
  /// Any thread, while the event is being constructed. Throws
  /// std::bad_alloc when memory runs out.
  void setMostDerivedTypeName(const std::string& name, const BaseEvent* copiedFrom) {
    if (copiedFrom != nullptr) {
      const auto& source = copiedFrom->types_;
      const auto own = std::find(source.begin(), source.end(), name);
      if (own != source.end()) {
        types_.assign(own, source.end());
        return;
      }
    }
    types_.insert(types_.begin(), name);
  }

 private:
  std::vector<std::string> types_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_BASEEVENT_H
