// SPDX-License-Identifier: MIT
// Counts heap allocations of the whole process while a measurement asks for
// it. The benchmark binary replaces the global operator new and delete (see
// AllocationCounter.cpp); the library, linked into the same process, then
// allocates through them too.
//
// Counting is off by default and costs one relaxed load per allocation while
// off, so the timing benchmarks in the same binary are not slowed by shared
// counters bouncing between the cores.
#ifndef VEXUTIL_BENCHMARKS_ALLOCATIONCOUNTER_H
#define VEXUTIL_BENCHMARKS_ALLOCATIONCOUNTER_H

#include <cstdint>

namespace vexbench {

struct AllocationTotals {
  std::uint64_t allocations = 0;     // Calls of operator new (all forms).
  std::uint64_t allocatedBytes = 0;  // Usable size of what they returned.
  std::uint64_t freedBytes = 0;      // Usable size of what operator delete freed.

  // Net growth of the heap over the window; negative when it shrank.
  std::int64_t netBytes() const {
    return static_cast<std::int64_t>(allocatedBytes) - static_cast<std::int64_t>(freedBytes);
  }
};

// Starts a counting window; totals of an earlier window are discarded.
void startCountingAllocations();
// Ends the window and returns its totals.
AllocationTotals stopCountingAllocations();

}  // namespace vexbench

#endif  // VEXUTIL_BENCHMARKS_ALLOCATIONCOUNTER_H
