// SPDX-License-Identifier: MIT
/// \file
/// Event<Class, Base>: defines an event class in a few lines.
///
/// ### Overview
/// A class derived from Event<Class, Base> is an event class of its own name
/// below Base (BaseEvent by default, or any other event class, hand-written or
/// defined this way). The helper supplies what every event class needs
/// besides its name, data and constructors:
/// * the type list: each constructor, the copy constructor included, names the
///   class followed by the names of Base's chain;
/// * clone(), returning a copy of the whole Class object;
/// * typeNameConstant(), to make the class's name a string that lives until
///   the process ends (the manager may compare names during static
///   destruction at exit).
///
/// The class itself declares `typeName()`, its data and its constructors:
///
///     class DocumentEvent : public vexutil::eventmgr::Event<DocumentEvent> {
///      public:
///       explicit DocumentEvent(int document) : document_(document) {}
///       static const std::string& typeName() noexcept { return typeNameConstant("DocumentEvent"); }
///       int document() const noexcept { return document_; }
///      private:
///       int document_;
///     };
///
///     class EditEvent : public vexutil::eventmgr::Event<EditEvent, DocumentEvent> {
///      public:
///       using Event::Event;  // DocumentEvent's constructors
///       static const std::string& typeName() noexcept { return typeNameConstant("EditEvent"); }
///     };
///
/// Constructor arguments that Event<Class, Base> does not use itself go to
/// Base's constructor: `EditEvent(int d, int n) : Event(d), n_(n) {}`.
/// Base may be abstract, and so may Class. A compiler-generated copy constructor of Class is
/// right: the helper's copy constructor names the class again.
///
/// ### Checked
/// At compile time (see EventChecks.h): Class derives from this
/// Event<Class, Base> (the first argument is the class being defined), and
/// Class declares its own typeName(), not Base's. In builds with assertions,
/// clone() asserts that the object is of class Class: a hand-written class
/// derived from Class that does not override clone() would otherwise be
/// published as a Class.
///
/// ### Modules that are unloaded
/// typeNameConstant() keeps the name in a static of the template, which GCC
/// gives the binding STB_GNU_UNIQUE: a plug-in that defines events this way
/// and is meant to be unloaded is built with `-fno-gnu-unique`, as
/// ClientAdapter.h says for subscribers.
///
/// ### Thread safety
/// As BaseEvent: an event is immutable once published. typeNameConstant()
/// may be called from any thread; its first call makes the string.
#ifndef VEXUTIL_EVENTMGR_EVENT_H
#define VEXUTIL_EVENTMGR_EVENT_H

#include <cassert>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/EventChecks.h"

namespace vexutil {
namespace eventmgr {

/// The base of an event class `Class` derived from `Base`; see Event.h.
///
/// \tparam Class the event class being defined, which derives from
///               Event<Class, Base>.
/// \tparam Base  BaseEvent or another event class; may be abstract.
template <typename Class, typename Base = BaseEvent>
class Event : public Base {
  static_assert(std::is_base_of<BaseEvent, Base>::value,
                "vexutil: Event<Class, Base>: Base must be BaseEvent or a class derived from it");

  template <typename... Args>
  using NotACopy = std::enable_if_t<
      !(sizeof...(Args) == 1 &&
        std::is_base_of<Event, std::decay_t<std::tuple_element_t<0, std::tuple<Args..., void>>>>::value),
      int>;

 public:
  /// For the compile-time checks of EventChecks.h: the nearest class defined
  /// with this helper, and its base.
  using EventHelperClass = Class;
  using EventHelperBase = Base;

  /// Constructs Base from `args`, then names Class first in the type list.
  /// \par Thread
  /// Any thread. Throws what Base's constructor throws, and std::bad_alloc.
  template <typename... Args, NotACopy<Args...> = 0>
  explicit Event(Args&&... args) : Base(std::forward<Args>(args)...) {
    checkDefinition();
    this->setMostDerivedTypeName(Class::typeName(), nullptr);
  }

  /// Copies Base's part of `other` and names the chain of Class afresh.
  /// \par Thread
  /// Any thread; `other` may be read by other threads at the same time.
  Event(const Event& other) : Base(other) {
    checkDefinition();
    this->setMostDerivedTypeName(Class::typeName(), &other);
  }

  Event& operator=(const Event&) = default;
  ~Event() override = default;

  /// A new copy of the whole Class object; the caller owns it.
  /// \pre The object is of class Class (asserted): a class derived from Class
  ///      overrides clone() too (derive it with Event<Derived, Class>).
  ///      Without assertions, a violation copies only the Class part, or
  ///      for an abstract Class returns null, which publish ignores.
  /// \par Thread
  /// Any thread; const. Throws std::bad_alloc and what Class's copy throws.
  Base* clone() const override {
    assert(typeid(*this) == typeid(Class) &&
           "vexutil: a class derived from this event class does not override clone(); "
           "define it with vexutil::eventmgr::Event<Derived, Class>");
    if constexpr (std::is_abstract<Class>::value || !std::is_base_of<Event, Class>::value) {
      return nullptr;  // No object is of such a class; see the assertion and checkDefinition().
    } else {
      return new Class(static_cast<const Class&>(*this));
    }
  }

 protected:
  /// The type name constant of Class: `name` as a string made on the first
  /// call and never destroyed, so that it stays valid during static
  /// destruction at exit. Call it from Class::typeName() only, always with
  /// the same name.
  /// \par Thread
  /// Any thread. Throws std::bad_alloc on the first call if memory runs out.
  static const std::string& typeNameConstant(const char* name) {
    static const std::string* const constant = new std::string(name);
    assert(*constant == name &&
           "vexutil: typeNameConstant() names the class of the Event<> it belongs to: a class derived by hand "
           "from an Event<> class defines its typeName() with a constant of its own, or uses Event<> itself");
    return *constant;
  }

 private:
  static constexpr void checkDefinition() {
    static_assert(std::is_base_of<Event, Class>::value,
                  "vexutil: Event<Class, Base>: the first argument must be the class being defined, as in "
                  "`class MyEvent : public vexutil::eventmgr::Event<MyEvent, Base>`");
    static_assert(isCheckedEventClass<Class>());
  }
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_EVENT_H
