// SPDX-License-Identifier: MIT
#include "MailerRegistry.h"

#include <utility>

#include "ClientOrder.h"

namespace vexutil {
namespace eventmgr {

bool MailerRegistry::MailerOrder::operator()(const boost::shared_ptr<ProxyMailer>& a,
                                             const boost::shared_ptr<ProxyMailer>& b) const {
  const int byClient = ClientOrder::compare(*a->getClient(), *b->getClient());
  if (byClient != 0) {
    return byClient < 0;
  }
  // Same client: ProxyMailer::operator< decides by the two sets of names.
  return *a < *b;
}

bool MailerRegistry::Key::matches(const ClientProxy& otherClient, const std::set<std::string>& otherDelayed,
                                  const std::set<std::string>& otherTrigger) const {
  return ClientOrder::same(*client, otherClient) && delayed == otherDelayed && trigger == otherTrigger;
}

void MailerRegistry::subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                               const ClientPtr& client, const boost::weak_ptr<const void>& manager) {
  if (!client) {
    return;
  }
  // An equal combined subscription, made or being made, is looked for first:
  // a second mailer, subscribed and then dropped as a duplicate, would hand
  // the client every flushed event twice while it lived.
  Key key{client.get(), std::set<std::string>(delayedInputTypes.begin(), delayedInputTypes.end()),
          std::set<std::string>(triggerInputTypes.begin(), triggerInputTypes.end()), Corvane::System::ThreadId::self(),
          nullptr};
  {
    MutexLock held(mutex_);
    if (!awaitNoEqualBuildLocked(held, key) || manager.expired() || findLocked(held, key)) {
      return;
    }
    key.next = building_;
    building_ = &key;
  }
  // Announced as being built, other threads wait for it; taken off that list
  // however the building ends.
  struct BuildEnd {
    MailerRegistry& registry;
    Key& key;
    ~BuildEnd() { registry.endBuild(key); }
  } const buildEnd{*this, key};
  // Built (and destroyed, if the manager shuts down meanwhile) outside
  // mutex_: both wait for the dispatcher thread.
  boost::shared_ptr<ProxyMailer> mailer(new ProxyMailer(delayedInputTypes, triggerInputTypes, client));
  // Held while the mailer is put in, so that a shutdown, which empties the
  // registry, comes after it.
  const boost::shared_ptr<const void> alive = manager.lock();
  if (!alive) {
    // The mailer withdraws its subscriptions as it goes; that waits for the
    // end of the shutdown, whose last delivery may still reach it.
    return;
  }
  const MutexLock held(mutex_);
  // If the insertion fails, the new mailer withdraws its subscriptions as it
  // goes.
  mailers_.insert(std::move(mailer));
}

void MailerRegistry::unSubscribe(const std::set<std::string>& delayed, const std::set<std::string>& trigger,
                                 const ClientPtr& client) {
  if (!client) {
    return;
  }
  const Key key{client.get(), delayed, trigger, Corvane::System::ThreadId::self(), nullptr};
  boost::shared_ptr<ProxyMailer> erased;
  MutexLock held(mutex_);
  // An equal subscription being made is waited for, and then removed.
  awaitNoEqualBuildLocked(held, key);
  // The set holds at most one mailer per client and pair of sets.
  erased = findLocked(held, key);
  if (erased) {
    mailers_.erase(erased);
  }
  held.unlock();
  // The erased mailer withdraws its subscriptions as `erased` goes, outside
  // mutex_.
}

bool MailerRegistry::awaitNoEqualBuildLocked(MutexLock& held, const Key& key) {
  for (;;) {
    const Key* equal = building_;
    while (equal != nullptr && !equal->matches(*key.client, key.delayed, key.trigger)) {
      equal = equal->next;
    }
    if (equal == nullptr) {
      return true;
    }
    if (equal->builder == key.builder) {
      return false;  // Made again from inside its own building (a hand-off): it is under way.
    }
    built_.wait(held.forWait());
  }
}

void MailerRegistry::endBuild(Key& key) noexcept {
  {
    const MutexLock held(mutex_);
    Key** link = &building_;
    while (*link != &key) {
      link = &(*link)->next;
    }
    *link = key.next;
  }
  built_.notify_all();
}

boost::shared_ptr<ProxyMailer> MailerRegistry::findLocked(const MutexLock& /*held*/, const Key& key) const {
  for (const boost::shared_ptr<ProxyMailer>& mailer : mailers_) {
    if (key.matches(*mailer->getClient(), mailer->getDelayedInputTypes(), mailer->getTriggerInputTypes())) {
      return mailer;
    }
  }
  return {};
}

void MailerRegistry::clearAll() noexcept {
  std::set<boost::shared_ptr<ProxyMailer>, MailerOrder> mailers;
  {
    const MutexLock held(mutex_);
    mailers.swap(mailers_);
  }
  // Emptied mailers withdraw nothing when they are destroyed.
  for (const boost::shared_ptr<ProxyMailer>& mailer : mailers) {
    mailer->clearAll();
  }
}

std::size_t MailerRegistry::size() const {
  const MutexLock held(mutex_);
  return mailers_.size();
}

}  // namespace eventmgr
}  // namespace vexutil
