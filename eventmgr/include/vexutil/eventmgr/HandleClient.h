// SPDX-License-Identifier: MIT
/// \file
/// The subscribers behind Subscription handles (Subscription.h), and how a
/// handler's event class is found: implementation details of the subscribe
/// functions, in a header of their own so that Subscription.h shows the
/// interface. Nothing here is meant to be used directly.
#ifndef VEXUTIL_EVENTMGR_HANDLECLIENT_H
#define VEXUTIL_EVENTMGR_HANDLECLIENT_H

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

#include <boost/shared_ptr.hpp>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/EventChecks.h"

namespace vexutil {
namespace eventmgr {

namespace detail {

/// The subscriber behind a Subscription: one class id for all of them
/// (an address inside the library), the proxy's own address as instance id,
/// so that no two live ones are the same subscriber and none is the same as
/// a ClientAdapter. Once deactivated, it calls nothing.
///
/// Thread safety: notify() runs on the dispatcher thread; deactivate() may be
/// called from any thread at any time (an atomic flag).
class VEXUTIL_API HandleClient : public ClientProxy {
 public:
  ~HandleClient() override;
  std::uint64_t getClassId() const override;
  std::uint64_t getInstanceId() const override;
  /// Stops all later calls. Any thread.
  void deactivate() noexcept { active_.store(false, std::memory_order_relaxed); }

 protected:
  HandleClient() = default;
  bool isActive() const noexcept { return active_.load(std::memory_order_relaxed); }
  /// True if a handler of `Event` is to be called with `event`: the handle
  /// is active and the event's type list names Event (any event for a
  /// BaseEvent handler).
  template <typename Event>
  bool accepts(const BaseEvent& event) const {
    if constexpr (std::is_same<Event, BaseEvent>::value) {
      return isActive();
    } else {
      return isActive() && event.isOfType(Event::typeName());
    }
  }

 private:
  std::atomic<bool> active_{true};
};

/// Calls `callable` with the events of class Event.
template <typename Event, typename Callable>
class CallableClient final : public HandleClient {
 public:
  explicit CallableClient(Callable callable) : callable_(std::move(callable)) {}

  void notify(const BaseEvent& event) const override {
    if (accepts<Event>(event)) {
      callable_(static_cast<const Event&>(event));
    }
  }

 private:
  // Called on the dispatcher thread only, one event at a time, so a mutable
  // lambda may keep state.
  mutable Callable callable_;
};

/// Deduces MyEvent from a handler taking `const MyEvent&`; Unnamed otherwise.
struct Unnamed {};
template <typename MemberFunction>
struct ParameterOf {
  using type = Unnamed;
};
template <typename Result, typename Class, typename Arg>
struct ParameterOf<Result (Class::*)(const Arg&) const> {
  using type = Arg;
};
template <typename Result, typename Class, typename Arg>
struct ParameterOf<Result (Class::*)(const Arg&)> {
  using type = Arg;
};
template <typename Result, typename Class, typename Arg>
struct ParameterOf<Result (Class::*)(const Arg&) const noexcept> {
  using type = Arg;
};
template <typename Result, typename Class, typename Arg>
struct ParameterOf<Result (Class::*)(const Arg&) noexcept> {
  using type = Arg;
};
template <typename Callable, typename = void>
struct CallableParameter {
  using type = Unnamed;
};
template <typename Callable>
struct CallableParameter<Callable, std::void_t<decltype(&Callable::operator())>>
    : ParameterOf<decltype(&Callable::operator())> {};
template <typename Result, typename Arg>
struct CallableParameter<Result (*)(const Arg&)> {
  using type = Arg;
};
template <typename Result, typename Arg>
struct CallableParameter<Result (*)(const Arg&) noexcept> {
  using type = Arg;
};

// The event class of a handler: the one named, or the deduced one.
template <typename Named, typename Callable>
using HandlerEvent = std::conditional_t<std::is_same<Named, Unnamed>::value,
                                        typename CallableParameter<std::decay_t<Callable>>::type, Named>;

template <typename T>
constexpr bool kAlwaysFalse = false;

template <typename Event, typename Callable>
boost::shared_ptr<HandleClient> makeCallableClient(Callable&& callable) {
  if constexpr (std::is_same<Event, Unnamed>::value) {
    static_assert(kAlwaysFalse<Callable>,
                  "vexutil: cannot tell the event class from this handler: give it one parameter "
                  "`const MyEvent&`, or name the class: subscribe<MyEvent>(...)");
    return nullptr;
  } else {
    static_assert(isCheckedEventClass<Event>());
    static_assert(std::is_invocable<std::decay_t<Callable>&, const Event&>::value,
                  "vexutil: the handler cannot be called with `const Event&` of the event class named");
    return boost::shared_ptr<HandleClient>(
        new CallableClient<Event, std::decay_t<Callable>>(std::forward<Callable>(callable)));
  }
}

// The type name of a handler's event class; empty when it is unknown (the
// handler is then rejected by makeCallableClient).
template <typename Event>
std::string typeNameOf() {
  if constexpr (std::is_same<Event, Unnamed>::value) {
    return {};
  } else {
    return Event::typeName();
  }
}

/// Calls a member function of an object with the events of class Event.
template <typename Target, typename Event>
class MemberClient final : public HandleClient {
 public:
  using Handler = void (Target::*)(const Event&);
  MemberClient(Target* target, Handler handler) : target_(target), handler_(handler) {}

  void notify(const BaseEvent& event) const override {
    if (accepts<Event>(event)) {
      (target_->*handler_)(static_cast<const Event&>(event));
    }
  }

 private:
  Target* target_;
  Handler handler_;
};

template <typename Target, typename Event>
boost::shared_ptr<HandleClient> makeMemberClient(Target* target, void (Target::*handler)(const Event&)) {
  static_assert(isCheckedEventClass<Event>());
  // Allocated as EventMgr's member subscribe allocates a ClientAdapter: a
  // delivery walks the clients in address order, and touches only the client
  // itself, not its count.
  return boost::shared_ptr<HandleClient>(new MemberClient<Target, Event>(target, handler));
}

}  // namespace detail

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_HANDLECLIENT_H
