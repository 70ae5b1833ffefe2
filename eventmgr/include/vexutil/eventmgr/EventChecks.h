// SPDX-License-Identifier: MIT
/// \file
/// What is checked about an event class, and where.
///
/// ### Overview
/// An event class is routed by its type names and copied by clone(): a class
/// that forgets either is published as some other class. These checks turn
/// the mistakes into compile errors where a template can see the class, and
/// into an assertion where only the running program can.
///
/// ### At compile time, for every class that reaches the manager's templates
/// The class E that a handler takes (`void handler(const E&)`) is checked by
/// ClientAdapter<Target, E> (so also by EventMgr's member-function subscribe
/// and unSubscribe, which build one), by the handle-returning subscribe
/// functions of Subscription.h, for a member function or a callable, and by
/// Event<E, Base> for the class it defines:
/// 1. E derives from BaseEvent.
/// 2. E declares its own static `typeName()`: it is not the one of BaseEvent,
///    nor that of the nearest class defined with Event<Class, Base> above E
///    (for a class defined with Event<E, Base>: that of Base). A class written
///    by hand two levels below BaseEvent, under another hand-written class,
///    is checked against BaseEvent only: the language cannot tell which class
///    declared an inherited static function.
/// 3. E overrides clone() itself (or through Event<E, Base>), unless E is
///    abstract: an abstract class is never the class of a published object,
///    so a handler may take it whether it overrides clone() or not.
/// BaseEvent itself passes (a handler may take every event), and so do the
/// library's own classes.
///
/// ### At run time, in builds with assertions (NDEBUG not defined)
/// * Event<Class, Base>::clone() asserts that the object is of class Class: a
///   hand-written class below it that does not override clone() would be
///   published as Class.
/// * The default manager's publish asserts, when the library itself is built
///   with assertions, that the copy made by clone() has the event's dynamic
///   class and the event's type names: it catches an intermediate class
///   without clone() and a copy constructor that lost or changed names, in
///   hand-written classes the templates never saw. The message names the
///   event's first type name and what differs; the process then aborts.
/// Builds with NDEBUG check nothing at run time.
///
/// ### Thread safety
/// Compile-time only; nothing here runs.
#ifndef VEXUTIL_EVENTMGR_EVENTCHECKS_H
#define VEXUTIL_EVENTMGR_EVENTCHECKS_H

#include <string>
#include <type_traits>

#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

template <typename Class, typename Base>
class Event;

namespace detail {

// The class that declares the member function `&E::clone` names.
template <typename MemberFunction>
struct DeclaringClass {
  using type = void;
};
template <typename Class, typename Result>
struct DeclaringClass<Result (Class::*)() const> {
  using type = Class;
};
template <typename Class, typename Result>
struct DeclaringClass<Result (Class::*)() const noexcept> {
  using type = Class;
};

// A clone() declared by E itself, or supplied for E by Event<E, Base>.
template <typename Declaring, typename E>
struct IsOwnClone : std::is_same<Declaring, E> {};
template <typename E, typename Base>
struct IsOwnClone<Event<E, Base>, E> : std::true_type {};

// Whether two static functions are the same one. Compared as template
// arguments, which name the functions themselves: comparing their addresses
// is not a constant expression under every compiler option (the undefined
// behaviour sanitizer of GCC refuses it).
template <auto Function>
struct FunctionTag {};
template <auto F, auto G>
constexpr bool kSameFunction = std::is_same<FunctionTag<F>, FunctionTag<G>>::value;

// The nearest class above E whose typeName() E must not share: the base
// given to E's own Event<E, Base>, else the nearest class defined with
// Event<>, else BaseEvent.
template <typename E, typename = void>
struct NameAncestor {
  using type = BaseEvent;
};
template <typename E>
struct NameAncestor<E, std::void_t<typename E::EventHelperClass>> {
  using type = std::conditional_t<std::is_same<typename E::EventHelperClass, E>::value, typename E::EventHelperBase,
                                  typename E::EventHelperClass>;
};

// Instantiated once per class; each failed condition is one error whose
// message says what to add.
template <typename E>
struct EventClassCheck {
  static_assert(std::is_base_of<BaseEvent, E>::value,
                "vexutil: an event class must derive from vexutil::eventmgr::BaseEvent "
                "(define it as `class MyEvent : public vexutil::eventmgr::Event<MyEvent> { ... }`)");
  // A class that is no event at all has been reported; check BaseEvent
  // instead, which passes, rather than pile up errors about it.
  using Checked = std::conditional_t<std::is_base_of<BaseEvent, E>::value, E, BaseEvent>;
  static_assert(std::is_same<Checked, BaseEvent>::value ||
                    (!kSameFunction<&Checked::typeName, &BaseEvent::typeName> &&
                     !kSameFunction<&Checked::typeName, &NameAncestor<Checked>::type::typeName>),
                "vexutil: the event class does not declare its own typeName(), so it would be routed and "
                "matched under its base class's name; add `static const std::string& typeName() noexcept` "
                "returning a string that is never destroyed, in an Event<> class "
                "`{ return typeNameConstant(\"MyEvent\"); }`");
  static_assert(std::is_abstract<Checked>::value ||
                    IsOwnClone<typename DeclaringClass<decltype(&Checked::clone)>::type, Checked>::value,
                "vexutil: the event class does not override clone(), so a published copy would be of its base "
                "class; derive it as `class MyEvent : public vexutil::eventmgr::Event<MyEvent, Base>`, or add "
                "`MyEvent* clone() const override { return new MyEvent(*this); }`");
  static constexpr bool value = true;
};

}  // namespace detail

/// Compiles only for an event class that passes the checks above; for use in
/// static_assert by templates that take an event class.
template <typename E>
constexpr bool isCheckedEventClass() {
  return detail::EventClassCheck<E>::value;  // Instantiates the checks.
}

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_EVENTCHECKS_H
