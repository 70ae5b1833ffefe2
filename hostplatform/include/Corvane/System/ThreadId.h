// SPDX-License-Identifier: MIT
// Corvane::System::ThreadId: the identity of an operating-system thread.
//
// Overview
//   ThreadId::self() identifies the calling thread. Identities are never
//   reused within a process: a thread started after another one ended gets a
//   new identity even when the operating system recycles its handle. A
//   default-constructed ThreadId identifies no thread and compares unequal to
//   the identity of every thread.
//
// Thread safety
//   ThreadId is a trivially copyable value (it fits std::atomic<ThreadId>).
//   self() may be called from any thread; distinct objects need no locking.
#ifndef CORVANE_SYSTEM_THREADID_H
#define CORVANE_SYSTEM_THREADID_H

#include <cstdint>

#include "Corvane/System/Export.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API ThreadId {
 public:
  // Identifies no thread.
  constexpr ThreadId() noexcept = default;

  // The identity of the calling thread; the same value for every call on one
  // thread, a different value on every other thread of the process.
  static ThreadId self() noexcept;

  // True when this value identifies a thread (it was obtained from self()).
  constexpr bool isValid() const noexcept { return value_ != 0; }

  // A number for diagnostics; 0 for "no thread".
  constexpr std::uint64_t value() const noexcept { return value_; }

  friend constexpr bool operator==(ThreadId a, ThreadId b) noexcept { return a.value_ == b.value_; }
  friend constexpr bool operator!=(ThreadId a, ThreadId b) noexcept { return a.value_ != b.value_; }

 private:
  constexpr explicit ThreadId(std::uint64_t value) noexcept : value_(value) {}

  std::uint64_t value_ = 0;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_THREADID_H
