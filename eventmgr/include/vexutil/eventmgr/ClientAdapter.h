// SPDX-License-Identifier: MIT
/// \file
/// ClientAdapter<Target, Event>: binds an object and one of its member
/// functions as a subscriber.
///
/// ### Overview
/// The adapter holds a plain pointer to the target object (not owned: the
/// caller keeps the object alive for as long as it is subscribed) and a
/// pointer to a member function `void (Target::*)(const Event&)`. notify()
/// calls the member function only for events whose type list contains
/// Event::typeName(), after a static cast to `const Event&`.
///
/// Every Target/Event pair has its own class id; the instance id is the
/// target's address. Two adapters for one object and one Target/Event pair are
/// therefore the same subscriber even when they name different member
/// functions: the manager keeps the first and drops the second.
///
/// ### Modules that are unloaded
/// The class id is the address of a static member of the template. GCC gives
/// that member of an instantiation for a class with external linkage the
/// binding STB_GNU_UNIQUE, and glibc never unloads a module whose unique
/// symbols have been bound: a plug-in that subscribes through ClientAdapter
/// and is meant to be unloaded (taking libvexutil with it) is built with
/// `-fno-gnu-unique`, as libvexutil itself is.
///
/// ### Thread safety
/// Immutable after construction. notify() runs on the dispatcher thread; the
/// member function it calls must not assume any other thread. An exception
/// thrown by the member function passes out of notify() to the manager, which
/// reports it and goes on; the adapter throws nothing itself.
#ifndef VEXUTIL_EVENTMGR_CLIENTADAPTER_H
#define VEXUTIL_EVENTMGR_CLIENTADAPTER_H

#include <cstdint>

#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/EventChecks.h"
#include "vexutil/eventmgr/SubscriberClassName.h"

namespace vexutil {
namespace eventmgr {

/// A subscriber made of an object and one of its member functions; see
/// ClientAdapter.h. EventMgr's member-function subscribe() makes these.
///
/// \tparam Target the subscriber's class.
/// \tparam Event  the event class that the member function takes: BaseEvent
///                or a class derived from it, with a static `typeName()`.
///                Checked at compile time as EventChecks.h says.
template <typename Target, typename Event>
class VEXUTIL_API ClientAdapter : public ClientProxy {
  static_assert(isCheckedEventClass<Event>());

 public:
  /// The member function type: `void Target::handler(const Event&)`.
  using Handler = void (Target::*)(const Event&);

  /// Stores both pointers. Either may be null; such an adapter never calls
  /// anything. The first adapter of each Target/Event pair also records
  /// Target's class name for reports (see SubscriberClassName.h).
  /// \pre While the adapter is subscribed, `target` stays alive and is an
  ///      object of class Target.
  /// \par Thread
  /// Any thread; never throws.
  ClientAdapter(Target* target, Handler handler) : target_(target), handler_(handler) {
#if defined(__GXX_RTTI) || defined(_CPPRTTI)
    static const bool named = (detail::nameSubscriberClass(ClientAdapter::getClassId(), typeid(Target)), true);
    (void)named;
#endif
  }

  /// Calls the member function with `event` cast to `const Event&` if the
  /// event's type list contains Event::typeName(); otherwise, or when a
  /// pointer is null, does nothing.
  /// \pre The event's type list tells its class truthfully (see BaseEvent):
  ///      the cast relies on it.
  /// \post Whatever the member function throws passes out unchanged.
  /// \par Thread
  /// The manager calls it on the dispatcher thread only. Called directly, it
  /// runs the member function on the calling thread.
  void notify(const BaseEvent& event) const override {
    if (target_ == nullptr || handler_ == nullptr) {
      return;
    }
    if (!event.isOfType(Event::typeName())) {
      return;
    }
    (target_->*handler_)(static_cast<const Event&>(event));
  }

  /// One value per Target/Event pair, the same in every module of the
  /// process and for the life of the process.
  /// \par Thread
  /// Any thread; never throws.
  std::uint64_t getClassId() const override { return reinterpret_cast<std::uintptr_t>(&classTag_); }

  /// The target's address.
  /// \par Thread
  /// Any thread; never throws.
  std::uint64_t getInstanceId() const override { return reinterpret_cast<std::uintptr_t>(target_); }

  /// The target given to the constructor. Any thread.
  Target* getTarget() const noexcept { return target_; }
  /// The member function given to the constructor. Any thread.
  Handler getHandler() const noexcept { return handler_; }

 private:
  // One per instantiation; its address is the class id. Exported with the
  // template so that every module of the process agrees on it.
  static const char classTag_;

  Target* target_;
  Handler handler_;
};

template <typename Target, typename Event>
const char ClientAdapter<Target, Event>::classTag_ = 0;

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_CLIENTADAPTER_H
