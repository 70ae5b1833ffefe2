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

std::atomic<bool> armed{false};
std::atomic<pthread_t> target{};
std::atomic<unsigned long> remaining{0};
std::atomic<bool> fired{false};

// Null when this allocation is the one that must fail.
void* allocate(std::size_t size, std::align_val_t alignment = std::align_val_t{0}) noexcept {
  if (armed.load(std::memory_order_acquire) && pthread_equal(target.load(std::memory_order_relaxed), pthread_self()) &&
      remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    armed.store(false, std::memory_order_release);
    fired.store(true, std::memory_order_release);
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
  armed.store(false, std::memory_order_release);
  target.store(thread, std::memory_order_relaxed);
  remaining.store(n, std::memory_order_relaxed);
  fired.store(false, std::memory_order_relaxed);
  armed.store(n != 0, std::memory_order_release);
}

bool disarmAllocationFailure() {
  armed.store(false, std::memory_order_release);
  return fired.load(std::memory_order_acquire);
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
