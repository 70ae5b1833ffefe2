// SPDX-License-Identifier: MIT
#include "DummyEventMgr.h"

#include "Instance.h"

namespace vexutil {
namespace eventmgr {

DummyEventMgr::DummyEventMgr() = default;
DummyEventMgr::~DummyEventMgr() = default;

void DummyEventMgr::publish(const BaseEvent& /*event*/, bool /*synchronous*/) {}
void DummyEventMgr::publish(const BaseEvent& /*event*/) {}
unsigned int DummyEventMgr::getSubscriptionCount() const { return 0; }
unsigned int DummyEventMgr::getPendingEventCount() const { return 0; }
bool DummyEventMgr::isDispatchOrMainThread() const { return false; }
void DummyEventMgr::subscribe(const std::string& /*eventType*/, const ClientPtr& /*client*/) {}
void DummyEventMgr::subscribe(const TypeList& /*eventTypes*/, const ClientPtr& /*client*/) {}
void DummyEventMgr::subscribe(const TypeList& /*delayedInputTypes*/, const TypeList& /*triggerInputTypes*/,
                              const ClientPtr& /*client*/) {}
// Nothing to remove; but while the default manager is still shutting down
// its last delivery may reach the client, and the caller may destroy the
// client once this returns.
void DummyEventMgr::unSubscribe(const std::string& /*eventType*/, const ClientPtr& /*client*/) {
  detail::awaitShutdownCompleted();
}
void DummyEventMgr::unSubscribe(const TypeList& /*eventTypes*/, const ClientPtr& /*client*/) {
  detail::awaitShutdownCompleted();
}
void DummyEventMgr::unSubscribe(const TypeList& /*delayedInputTypes*/, const TypeList& /*triggerInputTypes*/,
                                const ClientPtr& /*client*/) {
  detail::awaitShutdownCompleted();
}

}  // namespace eventmgr
}  // namespace vexutil
