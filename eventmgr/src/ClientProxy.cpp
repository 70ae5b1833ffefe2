// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

ClientProxy::~ClientProxy() = default;

bool clientLess(const ClientProxy& a, const ClientProxy& b) {
  if (&a == &b) {
    return false;
  }
  if (a.getClassId() != b.getClassId()) {
    return true;
  }
  return a.getInstanceId() < b.getInstanceId();
}

}  // namespace eventmgr
}  // namespace vexutil
