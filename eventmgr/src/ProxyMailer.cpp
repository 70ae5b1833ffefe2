// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/ProxyMailer.h"

#include <algorithm>
#include <iterator>
#include <thread>
#include <utility>

#include "vexutil/eventmgr/EventMgr.h"

namespace vexutil {
namespace eventmgr {

ProxyMailer::ProxyMailer(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                         boost::shared_ptr<ClientProxy> client)
    : client_(std::move(client)),
      delayedInputTypes_(delayedInputTypes.begin(), delayedInputTypes.end()),
      triggerInputTypes_(triggerInputTypes.begin(), triggerInputTypes.end()) {
  processInputTypes();
  createSubscriptions();
}

ProxyMailer::~ProxyMailer() {
  deleteSubscriptions();
  clearAll();
}

void ProxyMailer::processInputTypes() {
  TypeList onlyInOne;
  std::set_symmetric_difference(delayedInputTypes_.begin(), delayedInputTypes_.end(), triggerInputTypes_.begin(),
                                triggerInputTypes_.end(), std::back_inserter(onlyInOne));
  if (onlyInOne.size() == delayedInputTypes_.size() + triggerInputTypes_.size()) {
    // Disjoint groups: no intersection or differences to compute.
    triggerTypes_.assign(triggerInputTypes_.begin(), triggerInputTypes_.end());
    delayedTypes_.assign(delayedInputTypes_.begin(), delayedInputTypes_.end());
    return;
  }
  std::set_intersection(delayedInputTypes_.begin(), delayedInputTypes_.end(), triggerInputTypes_.begin(),
                        triggerInputTypes_.end(), std::back_inserter(combinedTypes_));
  std::set_difference(delayedInputTypes_.begin(), delayedInputTypes_.end(), combinedTypes_.begin(),
                      combinedTypes_.end(), std::back_inserter(delayedTypes_));
  std::set_difference(triggerInputTypes_.begin(), triggerInputTypes_.end(), combinedTypes_.begin(),
                      combinedTypes_.end(), std::back_inserter(triggerTypes_));
}

namespace {

using Handler = void (ProxyMailer::*)(const BaseEvent&);

// Calls visit(name, handler) for the first `count` names of the three lists,
// in the order in which they are subscribed and withdrawn: trigger, delayed,
// combined.
template <typename Visit>
void forEachSubscription(const ProxyMailer& mailer, std::size_t count, Visit visit) {
  const std::pair<const ProxyMailer::TypeList*, Handler> lists[] = {
      {&mailer.getTriggerTypes(), &ProxyMailer::triggerHandler},
      {&mailer.getDelayedTypes(), &ProxyMailer::delayedHandler},
      {&mailer.getCombinedTypes(), &ProxyMailer::combinedHandler}};
  for (const auto& list : lists) {
    for (const std::string& name : *list.first) {
      if (count-- == 0) {
        return;
      }
      visit(name, list.second);
    }
  }
}

}  // namespace

// Each name waits for the dispatcher, and the manager may shut down while one
// waits: instance() is asked again for every name, so that the names after
// it go to the no-op manager instead of the shut-down one.
//
// If a name cannot be subscribed, the names subscribed so far, and the
// failing one (whose request may have been carried out before the failure
// reached this thread), are withdrawn before the exception passes on: no
// subscription may outlive a mailer whose construction failed.
void ProxyMailer::createSubscriptions() {
  std::size_t attempted = 0;
  try {
    forEachSubscription(*this, static_cast<std::size_t>(-1),
                        [this, &attempted](const std::string& name, Handler handler) {
                          ++attempted;
                          EventMgr::instance()->subscribe(name, this, handler);
                        });
  } catch (...) {
    withdrawSubscriptions(attempted);
    throw;
  }
}

void ProxyMailer::deleteSubscriptions() { withdrawSubscriptions(static_cast<std::size_t>(-1)); }

// As createSubscriptions(): instance() again for every name. A subscription
// left behind would call into freed memory, so a walk that fails (memory ran
// out, or a function handed to this thread threw while it waited) is tried
// again until it gets through; withdrawing a name twice is harmless.
void ProxyMailer::withdrawSubscriptions(std::size_t count) noexcept {
  for (;;) {
    try {
      forEachSubscription(*this, count, [this](const std::string& name, Handler handler) {
        EventMgr::instance()->unSubscribe(name, this, handler);
      });
      return;
    } catch (...) {
      std::this_thread::yield();
    }
  }
}

void ProxyMailer::clearAll() {
  delayedInputTypes_.clear();
  triggerInputTypes_.clear();
  combinedTypes_.clear();
  delayedTypes_.clear();
  triggerTypes_.clear();
  delayedEvents_.clear();
}

bool ProxyMailer::operator<(const ProxyMailer& other) const {
  const ClientProxy* const mine = client_.get();
  const ClientProxy* const theirs = other.client_.get();
  if (mine == nullptr || theirs == nullptr) {
    // Only a mailer built directly with a null client gets here; it sorts
    // before every other one.
    if (mine != theirs) {
      return mine == nullptr;
    }
  } else if (clientLess(*mine, *theirs) || clientLess(*theirs, *mine)) {
    return clientLess(*mine, *theirs);
  }
  if (delayedInputTypes_ != other.delayedInputTypes_) {
    return delayedInputTypes_ < other.delayedInputTypes_;
  }
  return triggerInputTypes_ < other.triggerInputTypes_;
}

void ProxyMailer::delayedHandler(const BaseEvent& event) {
  const boost::shared_ptr<BaseEvent> copy(event.clone());
  if (copy) {
    delayedEvents_.push_back(copy);
  }
}

void ProxyMailer::triggerHandler(const BaseEvent& /*event*/) {
  // Walk by index over the events present when the walk starts: an event
  // stored meanwhile (a re-entering client) may reallocate the vector.
  const std::size_t batchSize = delayedEvents_.size();
  for (std::size_t index = 0; index < batchSize && index < delayedEvents_.size(); ++index) {
    // A copy of the pointer keeps the event alive even if the client clears
    // the mailer from inside notify().
    const boost::shared_ptr<BaseEvent> stored = delayedEvents_[index];
    notify(stored);
  }
  delayedEvents_.clear();
}

void ProxyMailer::combinedHandler(const BaseEvent& event) {
  delayedHandler(event);
  triggerHandler(event);
}

void ProxyMailer::notify(const boost::shared_ptr<BaseEvent>& storedEvent) const {
  if (client_ && storedEvent) {
    client_->notify(*storedEvent);
  }
}

}  // namespace eventmgr
}  // namespace vexutil
