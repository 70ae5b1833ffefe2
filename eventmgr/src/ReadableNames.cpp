// SPDX-License-Identifier: MIT
// Readable names for the diagnostics: the demangled class names of
// subscribers made by the library's adapters, and the description of an
// exception that the failure report shows.
#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <unordered_map>
#include <utility>

#include "Corvane/System/IUserException.h"
#include "TypeNames.h"
#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/Diagnostics.h"
#include "vexutil/eventmgr/SubscriberClassName.h"

namespace vexutil {
namespace eventmgr {
namespace {

std::string demangle(const char* mangled) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> readable(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                        std::free);
  return status == 0 && readable ? std::string(readable.get()) : std::string(mangled);
}

// The adapters' target classes by class id; process-wide, see
// DiagnosticsState.h for why it is an early static.
struct ClassNames {
  std::mutex mutex;
  std::unordered_map<std::uint64_t, std::string> byClassId;  // Guarded by mutex.
};

VEXUTIL_EARLY_STATIC ClassNames classNames;

}  // namespace

namespace detail {

void nameSubscriberClass(std::uint64_t classId, const std::type_info& target) noexcept {
  try {
    std::string name = demangle(target.name());
    std::lock_guard<std::mutex> lock(classNames.mutex);
    classNames.byClassId[classId] = std::move(name);
  } catch (...) {  // NOLINT(bugprone-empty-catch): reports fall back to the proxy's own class.
  }
}

}  // namespace detail

std::string subscriberClassName(const ClientProxy& client) {
  {
    std::lock_guard<std::mutex> lock(classNames.mutex);
    const auto found = classNames.byClassId.find(client.getClassId());
    if (found != classNames.byClassId.end()) {
      return found->second;
    }
  }
  return demangle(typeid(client).name());
}

std::string Diagnostics::describeException(const std::exception_ptr& exception) {
  if (!exception) {
    return "no exception";
  }
  try {
    std::rethrow_exception(exception);
  } catch (const Corvane::System::IUserException& failure) {
    return failure.getSource() + ": " + failure.getMessage();
  } catch (const std::exception& failure) {
    return demangle(typeid(failure).name()) + ": " + failure.what();
  } catch (...) {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    return type != nullptr ? "exception of type " + demangle(type->name()) : "unknown exception";
  }
}

}  // namespace eventmgr
}  // namespace vexutil
