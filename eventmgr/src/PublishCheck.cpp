// SPDX-License-Identifier: MIT
#include "PublishCheck.h"

#ifndef NDEBUG

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

namespace vexutil {
namespace eventmgr {

namespace {

std::string className(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

std::string joinedTypes(const BaseEvent& event) {
  std::string joined;
  for (const std::string& name : event.getTypes()) {
    joined += name + "::";
  }
  return joined;
}

}  // namespace

// Only the published class is known here, so the message names what differs
// and the usual causes.
void assertFaithfulCopy(const BaseEvent& event, const BaseEvent& copy) {
  if (typeid(copy) != typeid(event)) {
    std::fprintf(stderr,
                 "vexutil: publish: clone() of an event of class %s returned an object of class %s: that class, or "
                 "one between it and BaseEvent, does not override clone() (define it with "
                 "vexutil::eventmgr::Event<Class, Base>)\n",
                 className(typeid(event)).c_str(), className(typeid(copy)).c_str());
    std::abort();
  }
  if (copy.getTypes() != event.getTypes()) {
    std::fprintf(stderr,
                 "vexutil: publish: the copy of an event of class %s has the type names %s instead of %s: a copy "
                 "constructor of its class chain does not name the class (define the classes with "
                 "vexutil::eventmgr::Event<Class, Base>, or pass the names in every constructor)\n",
                 className(typeid(event)).c_str(), joinedTypes(copy).c_str(), joinedTypes(event).c_str());
    std::abort();
  }
}

}  // namespace eventmgr
}  // namespace vexutil

#endif  // NDEBUG
