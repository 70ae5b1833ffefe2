// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/Subscription.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <thread>

#include <boost/make_shared.hpp>

#include "vexutil/eventmgr/ProxyMailer.h"

namespace vexutil {
namespace eventmgr {

namespace detail {

namespace {
// Its address is the class id of every HandleClient, in every module.
const char handleClientClassTag = 0;
}  // namespace

HandleClient::~HandleClient() = default;

std::uint64_t HandleClient::getClassId() const { return reinterpret_cast<std::uintptr_t>(&handleClientClassTag); }

std::uint64_t HandleClient::getInstanceId() const { return reinterpret_cast<std::uintptr_t>(this); }

namespace {

// One role of a combined subscription: hands each event to one handler of a
// mailer that subscribed nothing itself. The subscriptions, and through them
// the delivery in progress, own the mailer, so a handle reset inside the
// mailer's own walk over its held-back events frees nothing under it.
class MailerRoleClient final : public HandleClient {
 public:
  using Handler = void (ProxyMailer::*)(const BaseEvent&);

  MailerRoleClient(boost::shared_ptr<ProxyMailer> mailer, Handler handler)
      : mailer_(std::move(mailer)), handler_(handler) {}

  void notify(const BaseEvent& event) const override {
    if (isActive()) {
      ((*mailer_).*handler_)(event);
    }
  }

 private:
  boost::shared_ptr<ProxyMailer> mailer_;
  Handler handler_;
};

}  // namespace
}  // namespace detail

Subscription::Subscription(Subscription&& other) noexcept : entries_(std::move(other.entries_)) {
  other.entries_.clear();
}

Subscription& Subscription::operator=(Subscription&& other) noexcept {
  if (this != &other) {
    reset();
    entries_ = std::move(other.entries_);
    other.entries_.clear();
  }
  return *this;
}

Subscription::~Subscription() { reset(); }

// Every client is deactivated first, so that nothing is called while the
// names are withdrawn one by one. A subscription left behind would only cost
// memory (its client calls nothing), but the handle promises to withdraw
// exactly what it made, so a walk that fails (memory ran out, or a function
// handed to this thread threw while it waited) is tried again; withdrawing a
// name twice is harmless.
void Subscription::reset() noexcept {
  if (entries_.empty()) {
    return;
  }
  for (const Entry& entry : entries_) {
    entry.client->deactivate();
  }
  for (;;) {
    try {
      for (const Entry& entry : entries_) {
        if (!entry.eventType.empty()) {
          EventMgr::instance()->unSubscribe(entry.eventType, entry.client);
        }
      }
      break;
    } catch (...) {
      std::this_thread::yield();
    }
  }
  entries_.clear();
}

void Subscription::subscribeAll() {
  try {
    for (const Entry& entry : entries_) {
      // A fresh instance() for every name: if the manager shuts down while
      // one waits, the rest go to the no-op manager.
      if (!entry.eventType.empty()) {
        EventMgr::instance()->subscribe(entry.eventType, entry.client);
      }
    }
  } catch (...) {
    reset();
    throw;
  }
}

Subscription Subscription::make(const TypeList& eventTypes, const boost::shared_ptr<detail::HandleClient>& client) {
  Subscription subscription;
  subscription.entries_.reserve(eventTypes.size());
  for (const std::string& eventType : eventTypes) {
    if (!eventType.empty()) {
      subscription.entries_.push_back(Entry{eventType, client});
    }
  }
  subscription.subscribeAll();
  return subscription;
}

// The names are split as the manager's combined subscription splits them:
// trigger-only, delayed-only and both, each ascending, subscribed in that
// order.
Subscription Subscription::makeCombined(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                                        const boost::shared_ptr<detail::HandleClient>& client) {
  const std::set<std::string> delayed(delayedInputTypes.begin(), delayedInputTypes.end());
  const std::set<std::string> trigger(triggerInputTypes.begin(), triggerInputTypes.end());
  TypeList triggerOnly;
  TypeList delayedOnly;
  TypeList both;
  std::set_difference(trigger.begin(), trigger.end(), delayed.begin(), delayed.end(), std::back_inserter(triggerOnly));
  std::set_difference(delayed.begin(), delayed.end(), trigger.begin(), trigger.end(), std::back_inserter(delayedOnly));
  std::set_intersection(delayed.begin(), delayed.end(), trigger.begin(), trigger.end(), std::back_inserter(both));

  // Built from empty lists, the mailer subscribes nothing and withdraws
  // nothing; it only holds back and hands over.
  const auto mailer = boost::make_shared<ProxyMailer>(TypeList(), TypeList(), client);
  const std::pair<const TypeList*, detail::MailerRoleClient::Handler> roles[] = {
      {&triggerOnly, &ProxyMailer::triggerHandler},
      {&delayedOnly, &ProxyMailer::delayedHandler},
      {&both, &ProxyMailer::combinedHandler}};
  Subscription subscription;
  if (!triggerOnly.empty() || !delayedOnly.empty() || !both.empty()) {
    // No name: only deactivated on reset, so that a batch being handed over
    // stops there too.
    subscription.entries_.push_back(Entry{std::string(), client});
  }
  for (const auto& role : roles) {
    if (role.first->empty()) {
      continue;
    }
    const boost::shared_ptr<detail::HandleClient> roleClient(new detail::MailerRoleClient(mailer, role.second));
    for (const std::string& eventType : *role.first) {
      if (!eventType.empty()) {
        subscription.entries_.push_back(Entry{eventType, roleClient});
      }
    }
  }
  subscription.subscribeAll();
  return subscription;
}

}  // namespace eventmgr
}  // namespace vexutil
