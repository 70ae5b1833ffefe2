// SPDX-License-Identifier: MIT
#include "vexutil/eventmgr/NotifyDeadlockException.h"

namespace vexutil {
namespace eventmgr {

NotifyDeadlockException::NotifyDeadlockException() = default;
NotifyDeadlockException::NotifyDeadlockException(const NotifyDeadlockException& other) = default;
NotifyDeadlockException& NotifyDeadlockException::operator=(const NotifyDeadlockException& other) = default;
NotifyDeadlockException::~NotifyDeadlockException() = default;

}  // namespace eventmgr
}  // namespace vexutil
