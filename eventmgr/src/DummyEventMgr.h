// SPDX-License-Identifier: MIT
// DummyEventMgr: the no-op manager that EventMgr::instance() returns after
// the default manager has been shut down. Every operation does nothing; the
// counts are 0 and isDispatchOrMainThread() is false, except that an
// unSubscribe made while the default manager is still shutting down returns
// once that shutdown has completed. Stateless, so it may be used from any
// thread at any time. It is a ToDoAdapter like the default
// manager, so that a host main loop that pumps hand-offs through
// dynamic_cast<ToDoAdapter&>(*EventMgr::instance()) keeps working (pumping
// the process-wide slot, which is empty or holds a withdrawn hand-off).
#ifndef VEXUTIL_EVENTMGR_SRC_DUMMYEVENTMGR_H
#define VEXUTIL_EVENTMGR_SRC_DUMMYEVENTMGR_H

#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/ToDoAdapter.h"

namespace vexutil {
namespace eventmgr {

class DummyEventMgr final : public EventMgr, public ToDoAdapter {
 public:
  DummyEventMgr();
  ~DummyEventMgr() override;

  using EventMgr::subscribe;
  using EventMgr::unSubscribe;

  void publish(const BaseEvent& event, bool synchronous) override;
  void publish(const BaseEvent& event) override;
  unsigned int getSubscriptionCount() const override;
  unsigned int getPendingEventCount() const override;
  bool isDispatchOrMainThread() const override;
  void subscribe(const std::string& eventType, const ClientPtr& client) override;
  void subscribe(const TypeList& eventTypes, const ClientPtr& client) override;
  void subscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                 const ClientPtr& client) override;
  void unSubscribe(const std::string& eventType, const ClientPtr& client) override;
  void unSubscribe(const TypeList& eventTypes, const ClientPtr& client) override;
  void unSubscribe(const TypeList& delayedInputTypes, const TypeList& triggerInputTypes,
                   const ClientPtr& client) override;
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_DUMMYEVENTMGR_H
