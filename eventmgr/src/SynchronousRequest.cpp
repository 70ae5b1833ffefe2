// SPDX-License-Identifier: MIT
#include "SynchronousRequest.h"

#include "libhx.h"

namespace vexutil {
namespace eventmgr {

const char* const kDeadlockReport =
    "Event dispatch from vexutil::eventmgr::EventMgr (ostrel/src/vexutil) appears to be deadlocked. "
    "Contact vexutil-maintainers@lists.vexutil.org.";

void SynchronousRequest::printReport() noexcept {
  try {
    hxPuts(kDeadlockReport);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the host could not print it; the wait goes on.
  }
}

}  // namespace eventmgr
}  // namespace vexutil
