// SPDX-License-Identifier: MIT
/// \file
/// ProxyMailer: a combined subscription that holds back events until a
/// trigger arrives.
///
/// ### Overview
/// A mailer is built from two groups of event type names and a client. Events
/// of the first group (delayed types) are cloned and stored; an event of the
/// second group (trigger types) hands every stored event to the client, one by
/// one in arrival order, and then drops them. A type named in both groups (a
/// combined type) is stored and triggers at once, so it is delivered last in
/// the batch it triggers. The trigger event itself is never handed to the
/// client.
///
/// The constructor splits the groups into three disjoint, ascending lists
/// (trigger-only, delayed-only, combined) and subscribes one handler per name
/// with EventMgr::instance(), in that order; the destructor withdraws them.
/// Hosts normally do not build mailers themselves: the two-list
/// EventMgr::subscribe creates and keeps them.
///
/// ### Guarantees
/// * The client sees the mailer's own clones, never the published object.
/// * If the client throws while a batch is handed over, the exception leaves
///   the trigger handler (the manager reports it) and every stored event stays
///   stored: the next trigger hands the whole batch over again.
/// * The destructor never throws.
///
/// ### Thread safety
/// The handlers must be called one at a time (the default manager calls them
/// on its dispatcher thread). A client that re-enters the mailer from its
/// notify (publishing a delayed type synchronously) is not supported.
/// Construction and destruction wait for the dispatcher thread and must not
/// happen on it. operator< reads only what is fixed after construction.
#ifndef VEXUTIL_EVENTMGR_PROXYMAILER_H
#define VEXUTIL_EVENTMGR_PROXYMAILER_H

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vexutil/Export.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

/// A combined subscription; see ProxyMailer.h. Made and kept by the two-list
/// EventMgr::subscribe.
class VEXUTIL_API ProxyMailer {
 public:
  /// A list of event type names.
  using TypeList = std::vector<std::string>;

  /// Builds the mailer and subscribes it. A null `client` gives a mailer
  /// that stores events and drops them at each trigger without handing
  /// anything over (the default manager never builds one: its two-list
  /// subscribe ignores a null client). Exceptions of the manager's subscribe
  /// (NotifyDeadlockException on the dispatcher thread, std::bad_alloc) pass
  /// out after the subscriptions already made have been withdrawn: a mailer
  /// whose construction failed leaves nothing behind.
  /// \post Every listed name is subscribed when the constructor returns; the
  ///       mailer must stay alive (at this address) until it is destroyed,
  ///       since the subscriptions point at it. Each name is subscribed
  ///       through a fresh EventMgr::instance(): if the manager shuts down
  ///       while one name waits, that name and the rest go to the no-op
  ///       manager and are not subscribed.
  /// \par Thread
  /// Any thread but the dispatcher thread; it waits for the dispatcher once
  /// per distinct name.
  ProxyMailer(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
              boost::shared_ptr<ClientProxy> client);

  /// Withdraws the subscriptions and drops the stored events; never throws.
  /// Like the constructor, it asks EventMgr::instance() afresh for every
  /// name, so a shutdown while it waits is harmless. A withdrawal that fails
  /// (out of memory) is tried again until it gets through.
  /// \post No handler of this mailer runs after the destructor returns, and
  ///       the manager holds no subscription of it.
  /// \par Thread
  /// Any thread but the dispatcher thread, as the overview says; it waits
  /// for the dispatcher once per name.
  ~ProxyMailer();

  ProxyMailer(const ProxyMailer&) = delete;
  ProxyMailer& operator=(const ProxyMailer&) = delete;

  /// Order of mailers: by client (the client ordering of clientLess), then by
  /// delayed input set, then by trigger input set, each set compared name by
  /// name. Mailers for clients of different classes are each less than the
  /// other; mailers built from the same client and the same names (in any
  /// order, with any repetition) are equivalent.
  /// \par Thread
  /// Any thread, while neither mailer is being cleared (clearAll()).
  bool operator<(const ProxyMailer& other) const;

  /// Empties the input sets, the three lists and the stored events without
  /// delivering anything. Withdraws no subscription: a later destruction
  /// withdraws nothing.
  /// \pre No handler of this mailer runs meanwhile: call it on the dispatcher
  ///      thread, or when none of its names can be delivered any more. The
  ///      subscriptions it leaves behind still point at the mailer, so either
  ///      the manager has dropped them already or the mailer outlives them.
  /// \par Thread
  /// See the precondition.
  void clearAll();

  /// Handler of a delayed-only name: stores a clone of `event`.
  /// \par Thread
  /// The dispatcher thread (one handler call at a time). Throws
  /// std::bad_alloc when memory runs out.
  void delayedHandler(const BaseEvent& event);
  /// Handler of a trigger-only name: hands every stored event to the client,
  /// in arrival order, then drops them. `event` itself is not handed over.
  /// \post If the client throws, the exception passes out and every stored
  ///       event stays stored.
  /// \par Thread
  /// The dispatcher thread (one handler call at a time).
  void triggerHandler(const BaseEvent& event);
  /// Handler of a name in both groups: delayedHandler(), then
  /// triggerHandler().
  /// \par Thread
  /// The dispatcher thread (one handler call at a time).
  void combinedHandler(const BaseEvent& event);

  /// Hands one stored event to the client; nothing when either is null.
  /// Whatever the client throws passes out.
  /// \par Thread
  /// The thread that runs the handlers.
  void notify(const boost::shared_ptr<BaseEvent>& storedEvent) const;

  /// The client given to the constructor. Any thread.
  const boost::shared_ptr<ClientProxy>& getClient() const noexcept { return client_; }
  /// The delayed names as given, sorted and without repetition. Any thread,
  /// while clearAll() does not run.
  const std::set<std::string>& getDelayedInputTypes() const noexcept { return delayedInputTypes_; }
  /// The trigger names as given, sorted and without repetition. Any thread,
  /// while clearAll() does not run.
  const std::set<std::string>& getTriggerInputTypes() const noexcept { return triggerInputTypes_; }
  /// The names that are only delayed, ascending. Any thread, while clearAll()
  /// does not run.
  const TypeList& getDelayedTypes() const noexcept { return delayedTypes_; }
  /// The names that only trigger, ascending. Any thread, while clearAll()
  /// does not run.
  const TypeList& getTriggerTypes() const noexcept { return triggerTypes_; }
  /// The names in both groups, ascending. Any thread, while clearAll() does
  /// not run.
  const TypeList& getCombinedTypes() const noexcept { return combinedTypes_; }
  /// Number of events held back now. On the thread that runs the handlers,
  /// or while no handler runs.
  std::size_t getStoredEventCount() const noexcept { return delayedEvents_.size(); }

 private:
  void processInputTypes();
  void createSubscriptions();
  void deleteSubscriptions();
  // Withdraws the first `count` names, in subscription order; retried until
  // it gets through.
  void withdrawSubscriptions(std::size_t count) noexcept;

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
