// SPDX-License-Identifier: MIT
// The replaced operator new and delete behind FailingAllocation.h. Every form allocates with malloc (or
// aligned_alloc) and frees with free, so memory from any form may be released by any other, as the standard
// library does.
#include "FailingAllocation.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<pthread_t> target{};
std::atomic<unsigned long> remaining{0};  // Allocations of `target` until the failing one; 0: disarmed.
std::atomic<bool> fired{false};

// Null when this allocation is the one that must fail. Only `target` counts down; the exchange keeps a count
// that another thread disarms meanwhile from coming back.
void* allocate(std::size_t size, std::align_val_t alignment = std::align_val_t{0}) noexcept {
  unsigned long left = remaining.load();
  if (left != 0 && pthread_equal(target.load(), pthread_self()) && remaining.compare_exchange_strong(left, left - 1) &&
      left == 1) {
    fired = true;
    return nullptr;
  }
  const auto align = static_cast<std::size_t>(alignment);
  size = size == 0 ? 1 : size;
  return align <= alignof(std::max_align_t) ? std::malloc(size)
                                            : std::aligned_alloc(align, (size + align - 1) / align * align);
}

void* allocateOrThrow(std::size_t size, std::align_val_t alignment = std::align_val_t{0}) {
  void* const memory = allocate(size, alignment);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void failNthAllocation(pthread_t thread, unsigned long n) {
  remaining = 0;
  target = thread;
  fired = false;
  remaining = n;
}

bool disarmAllocationFailure() {
  remaining = 0;
  return fired;
}

// NOLINTBEGIN(misc-new-delete-overloads, cert-dcl54-cpp, hicpp-new-delete-operators)
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, std::align_val_t alignment) { return allocateOrThrow(size, alignment); }
void* operator new[](std::size_t size, std::align_val_t alignment) { return allocateOrThrow(size, alignment); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size, alignment);
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
