// SPDX-License-Identifier: MIT
// Each dlclose() of the plug-in (busy_host.cpp, the only link to libvexutil) must take libvexutil out of the process:
// dispatcher stopped, queue dropped, everything freed (LeakSanitizer checks that in the AddressSanitizer build).
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

namespace {

// Threads of this process; with `expected`, once there are that many (a joined thread lingers) or after 30 s.
std::size_t threadCount(std::size_t expected = 0) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (;; std::this_thread::yield()) {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    const auto count = static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
    if (expected == 0 || count == expected || std::chrono::steady_clock::now() > deadline) {
      return count;
    }
  }
}

// True while an object of that name or file is mapped into the process.
bool isLoaded(const char* nameOrPath) {
  void* const handle = dlopen(nameOrPath, RTLD_NOW | RTLD_NOLOAD);
  return handle != nullptr && dlclose(handle) == 0;
}

}  // namespace

// 100 load / use / unload cycles, each leaving the dispatcher held with 200 events queued: nothing stays behind.
TEST(ReliabilityUnload, RepeatedLoadUseUnloadLeavesNothingBehind) {
  ASSERT_FALSE(isLoaded(VEXUTIL_LIBRARY_SONAME)) << "the test must not link libvexutil";
  // The baseline: this thread and any that a sanitizer runtime starts with the first thread (ThreadSanitizer does).
  std::size_t baseline = 0;
  std::thread([&baseline] { baseline = threadCount() - 1; }).join();
  for (int cycle = 0; cycle < 100 && !HasFailure(); ++cycle) {
    void* const module = dlopen(VEXUTIL_UNLOAD_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    ASSERT_TRUE(isLoaded(VEXUTIL_LIBRARY_SONAME));
    const auto leaveBusy = reinterpret_cast<int (*)(int, int)>(dlsym(module, "leave_busy"));
    ASSERT_NE(leaveBusy, nullptr) << dlerror();
    EXPECT_EQ(leaveBusy(200, 1), 200) << "cycle " << cycle;
    EXPECT_EQ(threadCount(baseline + 1), baseline + 1) << "exactly one dispatcher thread while loaded";
    ASSERT_EQ(dlclose(module), 0) << dlerror();
    EXPECT_FALSE(isLoaded(VEXUTIL_LIBRARY_SONAME)) << "libvexutil stayed loaded after its last user went";
    EXPECT_EQ(threadCount(baseline), baseline) << "a thread outlived the unload in cycle " << cycle;
  }
}
