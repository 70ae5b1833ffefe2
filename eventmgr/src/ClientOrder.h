// SPDX-License-Identifier: MIT
// ClientOrder: the one ordering of subscribers inside the manager.
//
// Clients are ordered by class id, then by instance id. For two clients of
// one class this is the order of clientLess(); clients of different classes,
// which clientLess() calls each less than the other, are ordered by class id
// instead, so that sets of clients of many classes stay well-formed. Two
// clients are the same subscriber when neither orders before the other.
//
// Thread safety
//   Stateless; reads only the ids, which a client does not change.
#ifndef VEXUTIL_EVENTMGR_SRC_CLIENTORDER_H
#define VEXUTIL_EVENTMGR_SRC_CLIENTORDER_H

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "vexutil/eventmgr/ClientProxy.h"

namespace vexutil {
namespace eventmgr {

struct ClientOrder {
  // Negative, zero or positive as `a` orders before, with or after `b`.
  static int compare(const ClientProxy& a, const ClientProxy& b) noexcept {
    const std::uint64_t classA = a.getClassId();
    const std::uint64_t classB = b.getClassId();
    if (classA != classB) {
      return classA < classB ? -1 : 1;
    }
    const std::uint64_t instanceA = a.getInstanceId();
    const std::uint64_t instanceB = b.getInstanceId();
    if (instanceA != instanceB) {
      return instanceA < instanceB ? -1 : 1;
    }
    return 0;
  }
  static bool same(const ClientProxy& a, const ClientProxy& b) noexcept { return compare(a, b) == 0; }

  bool operator()(const boost::shared_ptr<ClientProxy>& a, const boost::shared_ptr<ClientProxy>& b) const noexcept {
    return compare(*a, *b) < 0;
  }
};

}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SRC_CLIENTORDER_H
