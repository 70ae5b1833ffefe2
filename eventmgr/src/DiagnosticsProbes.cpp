// SPDX-License-Identifier: MIT
// The tracepoints' is-enabled semaphores, and the probes whose arguments cost
// too much to compute inline (see DiagnosticsState.h for the list).
#include <string>

#include "DiagnosticsState.h"
#include "vexutil/eventmgr/SubscriberClassName.h"

// NOLINTBEGIN: the semaphores' names and section are fixed by <sys/sdt.h>.
#define VEXUTIL_DEFINE_SEMAPHORE(probe) \
  __attribute__((section(".probes"))) volatile unsigned short vexutil_##probe##_semaphore = 0
extern "C" {
VEXUTIL_DEFINE_SEMAPHORE(publish);
VEXUTIL_DEFINE_SEMAPHORE(dequeue);
VEXUTIL_DEFINE_SEMAPHORE(notify_start);
__attribute__((alias("vexutil_notify_start_semaphore"))) extern volatile unsigned short vexutil_notify_end_semaphore;
VEXUTIL_DEFINE_SEMAPHORE(subscribe);
VEXUTIL_DEFINE_SEMAPHORE(unsubscribe);
VEXUTIL_DEFINE_SEMAPHORE(sync_wait_start);
VEXUTIL_DEFINE_SEMAPHORE(sync_wait_end);
VEXUTIL_DEFINE_SEMAPHORE(deadlock_report);
}
#undef VEXUTIL_DEFINE_SEMAPHORE
// NOLINTEND

namespace vexutil {
namespace eventmgr {
namespace diagnostics {

std::int64_t probeNotifyStart(const ClientProxy& client, const BaseEvent& event) noexcept {
  STAP_PROBE3(vexutil, notify_start, typeOf(event), client.getClassId(), client.getInstanceId());
  return nowNs();
}

void probeSubscription(const std::string& eventType, const ClientProxy& client, bool subscribe) noexcept {
  if (subscribe) {
    std::string name;
    try {
      name = subscriberClassName(client);
    } catch (...) {  // NOLINT(bugprone-empty-catch): traced without a name.
    }
    STAP_PROBE4(vexutil, subscribe, eventType.c_str(), client.getClassId(), client.getInstanceId(), name.c_str());
  } else {
    STAP_PROBE3(vexutil, unsubscribe, eventType.c_str(), client.getClassId(), client.getInstanceId());
  }
}

}  // namespace diagnostics
}  // namespace eventmgr
}  // namespace vexutil
