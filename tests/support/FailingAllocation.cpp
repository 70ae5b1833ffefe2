// SPDX-License-Identifier: MIT
// The replaced operator new and delete behind FailingAllocation.h. Every
// form allocates with malloc (or aligned_alloc) and frees with free, so memory
// from any form may be released by any other, as the standard library does.
#include "FailingAllocation.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace vexutil {
namespace testing_support {
namespace {

std::atomic<bool> armed{false};
std::atomic<pthread_t> target{};
std::atomic<unsigned long> remaining{0};
std::atomic<unsigned long> counted{0};
std::atomic<bool> fired{false};

// True when this allocation is the one that must fail.
bool shouldFail() noexcept {
  if (!armed.load(std::memory_order_acquire) ||
      pthread_equal(target.load(std::memory_order_relaxed), pthread_self()) == 0) {
    return false;
  }
  counted.fetch_add(1, std::memory_order_relaxed);
  if (remaining.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return false;
  }
  armed.store(false, std::memory_order_release);
  fired.store(true, std::memory_order_release);
  return true;
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
  if (shouldFail()) {
    return nullptr;
  }
  if (size == 0) {
    size = 1;
  }
  if (alignment <= alignof(std::max_align_t)) {
    return std::malloc(size);
  }
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  return std::aligned_alloc(alignment, rounded);
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  void* const memory = allocate(size, alignment);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void failNthAllocation(pthread_t thread, unsigned long n) {
  armed.store(false, std::memory_order_release);
  target.store(thread, std::memory_order_relaxed);
  remaining.store(n, std::memory_order_relaxed);
  counted.store(0, std::memory_order_relaxed);
  fired.store(false, std::memory_order_relaxed);
  armed.store(n != 0, std::memory_order_release);
}

bool disarmAllocationFailure() {
  armed.store(false, std::memory_order_release);
  return fired.load(std::memory_order_acquire);
}

unsigned long allocationsSinceArmed() { return counted.load(std::memory_order_relaxed); }

}  // namespace testing_support
}  // namespace vexutil

using vexutil::testing_support::allocate;
using vexutil::testing_support::allocateOrThrow;

// NOLINTBEGIN(misc-new-delete-overloads, cert-dcl54-cpp, hicpp-new-delete-operators)
void* operator new(std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return allocate(size, 0); }
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
// NOLINTEND(misc-new-delete-overloads, cert-dcl54-cpp, hicpp-new-delete-operators)
