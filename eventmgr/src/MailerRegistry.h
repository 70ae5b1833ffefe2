// SPDX-License-Identifier: MIT
// MailerRegistry: the combined subscriptions of one manager, each a
// ProxyMailer that holds back the delayed events of its client until a
// trigger arrives.
//
// A mailer subscribes itself when it is built and withdraws its subscriptions
// when it is destroyed; both wait for the dispatcher thread, so neither
// happens under the registry's mutex. The registry keeps at most one mailer
// per client and pair of name sets: a second, equal subscription is dropped,
// and one made while an equal one is being built waits for that building to
// end, so that no client receives a flushed event twice.
//
// Thread safety
//   Every operation may be called from any thread. mutex_ is a leaf of the
//   library's lock order (DefaultEventMgr.h); a thread that waits for an
//   equal mailer being built waits on built_ with mutex_ released. No
//   subscriber code runs under mutex_.
#ifndef VEXUTIL_EVENTMGR_SRC_MAILERREGISTRY_H
#define VEXUTIL_EVENTMGR_SRC_MAILERREGISTRY_H

#include <condition_variable>
#include <cstddef>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "Corvane/System/ThreadId.h"
#include "ThreadSafety.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ProxyMailer.h"

namespace vexutil {
namespace eventmgr {

class MailerRegistry {
 public:
  using ClientPtr = EventMgr::ClientPtr;
  using TypeList = EventMgr::TypeList;

  MailerRegistry() = default;
  MailerRegistry(const MailerRegistry&) = delete;
  MailerRegistry& operator=(const MailerRegistry&) = delete;

  // Builds and keeps a mailer for `client` unless an equal one exists or is
  // being built by this thread. `manager` is the owner's weak reference: once
  // it has expired (a shutdown began) nothing is kept, and a mailer built
  // meanwhile withdraws its subscriptions as it goes. A null client does
  // nothing. May throw what building the mailer throws.
  void subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes, const ClientPtr& client,
                 const boost::weak_ptr<const void>& manager);
  // Drops the mailer of `client` made from the same two sets of names, after
  // an equal one being built has been built; it withdraws its subscriptions
  // as it goes, outside the mutex.
  void unSubscribe(const std::set<std::string>& delayed, const std::set<std::string>& trigger, const ClientPtr& client);
  // Takes every mailer out and empties it, so that it withdraws nothing when
  // it goes: for the shutdown, which has cleared the subscriptions already.
  // Never throws.
  void clearAll() noexcept;
  // The number of mailers kept.
  std::size_t size() const;

 private:
  // Orders mailers by client (ClientOrder), then by their two sets of names.
  struct MailerOrder {
    bool operator()(const boost::shared_ptr<ProxyMailer>& a, const boost::shared_ptr<ProxyMailer>& b) const;
  };
  // A combined subscription whose mailer a thread is building; lives on
  // that thread's stack, linked into building_ while it is built.
  struct Key {
    const ClientProxy* client;
    std::set<std::string> delayed;
    std::set<std::string> trigger;
    Corvane::System::ThreadId builder;
    Key* next;
    bool matches(const ClientProxy& otherClient, const std::set<std::string>& otherDelayed,
                 const std::set<std::string>& otherTrigger) const;
  };

  // Waits until no thread builds a mailer equal to `key`; false (at once)
  // when the calling thread itself builds one. `held` holds mutex_.
  bool awaitNoEqualBuildLocked(MutexLock& held, const Key& key) VEXUTIL_REQUIRES(mutex_);
  // Takes `key` off building_ and wakes the threads that wait for it.
  void endBuild(Key& key) noexcept VEXUTIL_EXCLUDES(mutex_);
  // The mailer equal to `key`, or null. `held` holds mutex_.
  boost::shared_ptr<ProxyMailer> findLocked(const MutexLock& held, const Key& key) const VEXUTIL_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers_ VEXUTIL_GUARDED_BY(mutex_);
  Key* building_ VEXUTIL_GUARDED_BY(mutex_) = nullptr;
  std::condition_variable built_;  // Notified when a key leaves building_.
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_MAILERREGISTRY_H
