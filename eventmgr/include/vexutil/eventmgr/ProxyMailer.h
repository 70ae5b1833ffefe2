// ProxyMailer: a combined subscription that holds back events until a
// trigger arrives.
//
// Overview
//   A mailer is built from two groups of event type names and a client.
//   Events of the first group (delayed types) are cloned and stored; an event
//   of the second group (trigger types) hands every stored event to the
//   client, one by one in arrival order, and then drops them. A type named in
//   both groups (a combined type) is stored and triggers at once, so it is
//   delivered last in the batch it triggers. The trigger event itself is
//   never handed to the client.
//
//   The constructor splits the groups into three disjoint, ascending lists
//   (trigger-only, delayed-only, combined) and subscribes one handler per
//   name with EventMgr::instance(), in that order; the destructor withdraws
//   them. Hosts normally do not build mailers themselves: the two-list
//   EventMgr::subscribe creates and keeps them.
//
// Guarantees
//   * The client sees the mailer's own clones, never the published object.
//   * If the client throws while a batch is handed over, the exception leaves
//     the trigger handler (the manager reports it) and every stored event
//     stays stored: the next trigger hands the whole batch over again.
//   * The destructor never throws.
//
// Thread safety
//   The handlers must be called one at a time (the default manager calls them
//   on its dispatcher thread). A client that re-enters the mailer from its
//   notify (publishing a delayed type synchronously) is not supported.
//   Construction and destruction wait for the dispatcher thread and must not
//   happen on it. operator< reads only what is fixed after construction.
#ifndef VEXUTIL_EVENTMGR_PROXYMAILER_H
#define VEXUTIL_EVENTMGR_PROXYMAILER_H

#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

class VEXUTIL_API ProxyMailer {
 public:
  using TypeList = std::vector<std::string>;

  // Builds the mailer and subscribes it. `client` must not be null: the
  // default manager never builds a mailer for a null client. Exceptions of
  // the manager's subscribe (NotifyDeadlockException on the dispatcher
  // thread) pass out; subscriptions already made then stay registered.
  ProxyMailer(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
              boost::shared_ptr<ClientProxy> client);

  // Withdraws the subscriptions and drops the stored events; never throws.
  ~ProxyMailer();

  ProxyMailer(const ProxyMailer&) = delete;
  ProxyMailer& operator=(const ProxyMailer&) = delete;

  // Order of mailers: by client (the client ordering of clientLess), then by
  // delayed input set, then by trigger input set, each set compared name by
  // name. Mailers for clients of different classes are each less than the
  // other; mailers built from the same client and the same names (in any
  // order, with any repetition) are equivalent.
  bool operator<(const ProxyMailer& other) const;

  // Empties the input sets, the three lists and the stored events without
  // delivering anything. Withdraws no subscription: a later destruction
  // withdraws nothing.
  void clearAll();

  // Handlers, subscribed by the constructor; public so that they can be
  // called directly.
  void delayedHandler(const BaseEvent& event);
  void triggerHandler(const BaseEvent& event);
  void combinedHandler(const BaseEvent& event);

  // Hands one stored event to the client.
  void notify(const boost::shared_ptr<BaseEvent>& storedEvent) const;

  // Read access, for the manager and for diagnostics.
  const boost::shared_ptr<ClientProxy>& getClient() const noexcept { return client_; }
  const std::set<std::string>& getDelayedInputTypes() const noexcept { return delayedInputTypes_; }
  const std::set<std::string>& getTriggerInputTypes() const noexcept { return triggerInputTypes_; }
  const TypeList& getDelayedTypes() const noexcept { return delayedTypes_; }
  const TypeList& getTriggerTypes() const noexcept { return triggerTypes_; }
  const TypeList& getCombinedTypes() const noexcept { return combinedTypes_; }
  std::size_t getStoredEventCount() const noexcept { return delayedEvents_.size(); }

 private:
  void processInputTypes();
  void createSubscriptions();
  void deleteSubscriptions();

  boost::shared_ptr<ClientProxy> client_;
  std::set<std::string> delayedInputTypes_;
  std::set<std::string> triggerInputTypes_;
  std::vector<boost::shared_ptr<BaseEvent>> delayedEvents_;
  TypeList delayedTypes_;
  TypeList triggerTypes_;
  TypeList combinedTypes_;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_PROXYMAILER_H
