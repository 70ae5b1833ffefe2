// ClientProxy: a subscriber as the event manager sees it.
//
// Overview
//   The manager holds subscribers as boost::shared_ptr<ClientProxy>, calls
//   notify() with each event they subscribed to, and tells them apart by two
//   identities: getClassId() names the kind of proxy (for ClientAdapter, one
//   value per Target/Event pair) and getInstanceId() the target object. Two
//   proxies with equal class and instance ids are the same subscriber.
//
// Guarantees a subscriber may rely on
//   * notify() is only ever called on the manager's dispatcher thread, one
//     event at a time, with no lock of the manager held.
//   * An exception that leaves notify() never reaches the publisher: the
//     manager turns it into a report line that the next publishing or waiting
//     thread prints, and goes on with the next subscriber.
// and may not rely on
//   * the order among subscribers of different proxy classes.
//
// Thread safety
//   Implementations must be safe to destroy on any thread; the manager never
//   calls one proxy from two threads at once.
#ifndef VEXUTIL_EVENTMGR_CLIENTPROXY_H
#define VEXUTIL_EVENTMGR_CLIENTPROXY_H

#include <cstdint>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"

namespace vexutil {
namespace eventmgr {

class VEXUTIL_API ClientProxy {
 public:
  virtual ~ClientProxy();

  // Delivers one event. Called on the dispatcher thread only.
  virtual void notify(const BaseEvent& event) const = 0;

  // Identity of the proxy's kind: equal for all proxies of one kind, different
  // for different kinds, stable for the life of the process.
  virtual std::uint64_t getClassId() const = 0;

  // Identity of the target object behind the proxy.
  virtual std::uint64_t getInstanceId() const = 0;

 protected:
  ClientProxy() = default;
  ClientProxy(const ClientProxy&) = default;
  ClientProxy& operator=(const ClientProxy&) = default;
};

// The client ordering used by subscriber sets and by ProxyMailer::operator<:
// `a` is less than `b` when they are different objects and either their class
// ids differ, or the class ids are equal and a's instance id is below b's.
// Two clients of different classes therefore each count as less than the
// other; only clients of one class are ordered. Both must be non-null.
VEXUTIL_API bool clientLess(const ClientProxy& a, const ClientProxy& b);

// True when `a` and `b` are the same subscriber: equal class and instance ids.
inline bool sameSubscriber(const ClientProxy& a, const ClientProxy& b) {
  return a.getClassId() == b.getClassId() && a.getInstanceId() == b.getInstanceId();
}

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_CLIENTPROXY_H
