// SPDX-License-Identifier: MIT
#include "vexutil/contextmgr/ContextRegistry.h"

#include <algorithm>

namespace vexutil {
namespace contextmgr {

namespace {

// Holds the critical section for a scope and releases it on every path,
// exceptions of factories and contexts included.
class SectionLock {
 public:
  explicit SectionLock(Corvane::System::CriticalSection& section) : section_(section) { section_.acquire(); }
  ~SectionLock() { section_.release(); }
  SectionLock(const SectionLock&) = delete;
  SectionLock& operator=(const SectionLock&) = delete;

 private:
  Corvane::System::CriticalSection& section_;
};

constexpr std::size_t kReservedFactories = 10;

// Appends `context`, just made by `factory`. If the vector cannot grow, the
// context goes back to its factory before the exception passes on, so that
// it is not lost.
void appendOrHandBack(ContextRegistry::ContextVector& contexts, ContextBase* context, ContextFactoryBase& factory) {
  try {
    contexts.push_back(context);
  } catch (...) {
    if (context != nullptr) {
      factory.destroy(context);
    }
    throw;
  }
}

}  // namespace

ContextBase::~ContextBase() = default;
ContextFactoryBase::~ContextFactoryBase() = default;

ContextRegistry* ContextRegistry::getInstance() {
  // Made once under the runtime's guard for local statics; never destroyed.
  static auto* const registry = new ContextRegistry;
  return registry;
}

ContextRegistry::ContextRegistry() { factories_.reserve(kReservedFactories); }

ContextRegistry::~ContextRegistry() = default;

void ContextRegistry::registerFactory(ContextFactoryBase* factory) {
  if (factory == nullptr) {
    return;
  }
  SectionLock lock(lock_);
  factories_.push_back(factory);
}

void ContextRegistry::create(ContextVector& contexts) {
  SectionLock lock(lock_);
  contexts.reserve(contexts.size() + factories_.size());
  // Index-based: a factory may register another one from inside create(),
  // and the vector then grows beyond what was reserved.
  for (std::size_t i = 0; i < factories_.size(); ++i) {  // NOLINT(modernize-loop-convert)
    appendOrHandBack(contexts, factories_[i]->create(), *factories_[i]);
  }
}

void ContextRegistry::destroy(ContextVector& contexts) {
  SectionLock lock(lock_);
  const std::size_t paired = std::min(factories_.size(), contexts.size());
  for (std::size_t i = 0; i < paired; ++i) {
    if (contexts[i] != nullptr) {
      factories_[i]->destroy(contexts[i]);
    }
  }
  contexts.clear();
}

void ContextRegistry::save(ContextVector& contexts) const {
  SectionLock lock(lock_);
  for (ContextBase* context : contexts) {
    if (context != nullptr) {
      context->save();
    }
  }
}

void ContextRegistry::restore(ContextVector& contexts) const {
  SectionLock lock(lock_);
  for (ContextBase* context : contexts) {
    if (context != nullptr) {
      context->restore();
    }
  }
}

void ContextRegistry::clone(ContextVector& destination, const ContextVector& source) const {
  SectionLock lock(lock_);
  const std::size_t paired = std::min(factories_.size(), source.size());
  // Appending to `source` itself would invalidate what is being read.
  const ContextVector originals(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(paired));
  // Running out of memory here leaves `destination` as it was; later
  // appends cannot fail.
  destination.reserve(destination.size() + paired);
  for (std::size_t i = 0; i < paired; ++i) {
    appendOrHandBack(destination, originals[i] != nullptr ? factories_[i]->clone(originals[i]) : nullptr,
                     *factories_[i]);
  }
}

std::size_t ContextRegistry::getFactoryCount() const {
  SectionLock lock(lock_);
  return factories_.size();
}

}  // namespace contextmgr
}  // namespace vexutil
