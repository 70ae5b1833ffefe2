#include "DummyEventMgr.h"

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
void DummyEventMgr::unSubscribe(const std::string& /*eventType*/, const ClientPtr& /*client*/) {}
void DummyEventMgr::unSubscribe(const TypeList& /*eventTypes*/, const ClientPtr& /*client*/) {}
void DummyEventMgr::unSubscribe(const TypeList& /*delayedInputTypes*/, const TypeList& /*triggerInputTypes*/,
                                const ClientPtr& /*client*/) {}

}  // namespace eventmgr
}  // namespace vexutil
