// SPDX-License-Identifier: MIT
/// \file
/// ClientProxy: a subscriber as the event manager sees it.
///
/// ### Overview
/// The manager holds subscribers as boost::shared_ptr<ClientProxy>, calls
/// notify() with each event they subscribed to, and tells them apart by two
/// identities: getClassId() names the kind of proxy (for ClientAdapter, one
/// value per Target/Event pair) and getInstanceId() the target object. Two
/// proxies with equal class and instance ids are the same subscriber.
///
/// ### Guarantees a subscriber may rely on
/// * notify() is only ever called on the manager's dispatcher thread, one
///   event at a time, with no lock of the manager held.
/// * An exception that leaves notify() never reaches the publisher: the
///   manager turns it into a report line that the next publishing or waiting
///   thread prints, and goes on with the next subscriber.
///
/// ### and may not rely on
/// * the order among subscribers of different proxy classes.
///
/// ### Thread safety
/// Implementations must be safe to destroy on any thread; the manager never
/// calls one proxy from two threads at once.
#ifndef VEXUTIL_EVENTMGR_CLIENTPROXY_H
#define VEXUTIL_EVENTMGR_CLIENTPROXY_H

#include <cstdint>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

/// The interface of a subscriber; see ClientProxy.h. Hosts usually get one
/// from ClientAdapter; derive from it for other kinds of subscriber.
class VEXUTIL_API ClientProxy {
 public:
  /// \par Thread
  /// Any thread: the manager lets go of a subscriber on the dispatcher thread,
  /// at shutdown on the thread that destroys the manager, and the caller's
  /// own references go wherever the caller drops them.
  virtual ~ClientProxy();

  /// Delivers one event. Called on the dispatcher thread only.
  /// \pre Requests that wait for the dispatcher (subscribe, a synchronous
  ///      publish) must not be made from here: they throw
  ///      NotifyDeadlockException. Asynchronous publishes and unSubscribe are
  ///      allowed.
  /// \post An exception that leaves it is caught by the manager and reported;
  ///       delivery goes on with the next subscriber.
  /// \par Thread
  /// The dispatcher thread, one event at a time, no lock of the manager held.
  virtual void notify(const BaseEvent& event) const = 0;

  /// Identity of the proxy's kind: equal for all proxies of one kind, different
  /// for different kinds, stable for the life of the process.
  /// \pre Must not throw; the manager orders its subscriber sets by it.
  /// \par Thread
  /// Any thread: the manager calls it on the dispatcher thread and on the
  /// threads that subscribe and unsubscribe.
  virtual std::uint64_t getClassId() const = 0;

  /// Identity of the target object behind the proxy.
  /// \pre Must not throw, and must not change while the proxy is subscribed.
  /// \par Thread
  /// Any thread, as getClassId().
  virtual std::uint64_t getInstanceId() const = 0;

 protected:
  ClientProxy() = default;
  ClientProxy(const ClientProxy&) = default;
  ClientProxy& operator=(const ClientProxy&) = default;
};

/// The client ordering used by subscriber sets and by ProxyMailer::operator<:
/// `a` is less than `b` when they are different objects and either their class
/// ids differ, or the class ids are equal and a's instance id is below b's.
/// Two clients of different classes therefore each count as less than the
/// other; only clients of one class are ordered. Both must be non-null.
/// \par Thread
/// Any thread; reads only the two identities.
VEXUTIL_API bool clientLess(const ClientProxy& a, const ClientProxy& b);

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_CLIENTPROXY_H
