// SPDX-License-Identifier: MIT
// The replaced global allocation functions of the benchmark binary.
#include "AllocationCounter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace vexbench {

namespace {

std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> allocatedBytes{0};
std::atomic<std::uint64_t> freedBytes{0};

void recordAllocation(void* block) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    allocatedBytes.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
  }
}

void recordFree(void* block) {
  if (block != nullptr && counting.load(std::memory_order_relaxed)) {
    freedBytes.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
  }
}

void* allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  recordAllocation(block);
  return block;
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
  const auto align = static_cast<std::size_t>(alignment);
  // aligned_alloc wants a size that is a multiple of the alignment.
  const std::size_t rounded = ((size == 0 ? 1 : size) + align - 1) / align * align;
  void* block = std::aligned_alloc(align, rounded);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  recordAllocation(block);
  return block;
}

void release(void* block) noexcept {
  recordFree(block);
  std::free(block);
}

}  // namespace

void startCountingAllocations() {
  allocations.store(0, std::memory_order_relaxed);
  allocatedBytes.store(0, std::memory_order_relaxed);
  freedBytes.store(0, std::memory_order_relaxed);
  counting.store(true, std::memory_order_seq_cst);
}

AllocationTotals stopCountingAllocations() {
  counting.store(false, std::memory_order_seq_cst);
  AllocationTotals totals;
  totals.allocations = allocations.load(std::memory_order_relaxed);
  totals.allocatedBytes = allocatedBytes.load(std::memory_order_relaxed);
  totals.freedBytes = freedBytes.load(std::memory_order_relaxed);
  return totals;
}

}  // namespace vexbench

void* operator new(std::size_t size) { return vexbench::allocate(size); }
void* operator new[](std::size_t size) { return vexbench::allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return vexbench::allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return vexbench::allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new(std::size_t size, std::align_val_t alignment) { return vexbench::allocateAligned(size, alignment); }
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return vexbench::allocateAligned(size, alignment);
}

void operator delete(void* block) noexcept { vexbench::release(block); }
void operator delete[](void* block) noexcept { vexbench::release(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { vexbench::release(block); }
void operator delete[](void* block, std::size_t /*size*/) noexcept { vexbench::release(block); }
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { vexbench::release(block); }
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept { vexbench::release(block); }
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { vexbench::release(block); }
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept { vexbench::release(block); }
void operator delete(void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  vexbench::release(block);
}
void operator delete[](void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  vexbench::release(block);
}
