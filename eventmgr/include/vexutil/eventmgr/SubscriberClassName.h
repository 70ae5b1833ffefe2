// SPDX-License-Identifier: MIT
/// \file
/// The readable class names of adapter-made subscribers.
///
/// ### Overview
/// The manager tells subscribers apart by two numbers (class id, instance id),
/// which say nothing to a person reading a report. Every ClientAdapter
/// instantiation records, the first time one of its adapters is made, the
/// class name of its Target under its class id; diagnostics look the name up
/// there. Recording is not part of any subscriber's interface: ClientProxy
/// keeps its virtual functions and ClientAdapter its layout.
///
/// ### Thread safety
/// Both functions may be called from any thread at any time.
#ifndef VEXUTIL_EVENTMGR_SUBSCRIBERCLASSNAME_H
#define VEXUTIL_EVENTMGR_SUBSCRIBERCLASSNAME_H

#include <cstdint>
#include <string>
#include <typeinfo>

#include "vexutil/Export.h"

namespace vexutil {
namespace eventmgr {

class ClientProxy;

/// A readable name for `client`: the demangled Target class of an adapter
/// made by ClientAdapter (for example "app::Sensor"), otherwise the demangled
/// dynamic class of the proxy. Never empty.
/// \par Thread
/// Any thread. Throws std::bad_alloc when memory runs out.
VEXUTIL_API std::string subscriberClassName(const ClientProxy& client);

namespace detail {

/// Records `target`'s demangled name for adapters of class id `classId`,
/// replacing an earlier name for that id (a module loaded where an unloaded
/// one was may reuse the address). Called by ClientAdapter, once per
/// instantiation and module. A name that cannot be stored for lack of memory
/// is not recorded.
/// \par Thread
/// Any thread; never throws.
VEXUTIL_API void nameSubscriberClass(std::uint64_t classId, const std::type_info& target) noexcept;

}  // namespace detail
}  // namespace eventmgr
}  // namespace vexutil

#endif  // VEXUTIL_EVENTMGR_SUBSCRIBERCLASSNAME_H
