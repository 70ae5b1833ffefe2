// SPDX-License-Identifier: MIT
// Corvane::System::CriticalSection: a re-entrant mutual-exclusion lock.
//
// Overview
//   acquire() blocks until the calling thread owns the section; a thread that
//   already owns it may acquire it again and must release it as often as it
//   acquired it. The section is neither copyable nor movable.
//
// Thread safety
//   acquire() and release() may be called from any thread. release() by a
//   thread that does not own the section is a programming error; this
//   implementation ignores it rather than corrupting the lock.
#ifndef CORVANE_SYSTEM_CRITICALSECTION_H
#define CORVANE_SYSTEM_CRITICALSECTION_H

#include <atomic>
#include <cstdint>
#include <mutex>

#include "Corvane/System/Export.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();  // NOLINT(performance-trivially-destructible): out of line for a stable ABI.
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  // Blocks until the calling thread owns the section (re-entrant).
  void acquire();
  // Gives up one level of ownership; the last one lets other threads in.
  void release();

 private:
  std::recursive_mutex mutex_;
  // Identity (ThreadId value) of the owning thread, 0 when free; lets
  // release() tell a foreign or unbalanced release apart.
  std::atomic<std::uint64_t> owner_{0};
  // Guarded by mutex_: how many times the owner acquired the section.
  unsigned depth_ = 0;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_CRITICALSECTION_H
