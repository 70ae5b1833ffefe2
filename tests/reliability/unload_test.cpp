// Loading and unloading the shared library again and again, as a host that
// loads and unloads a plug-in does. The plug-in (unload_module.cpp) links
// libvexutil; this test links neither, so each dlclose() of the plug-in must
// take libvexutil out of the process too, stopping its dispatcher thread,
// dropping queued events and freeing everything (LeakSanitizer checks the
// last part in the AddressSanitizer build).
#include <dirent.h>
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <thread>

namespace {

#ifndef VEXUTIL_UNLOAD_CYCLES
#define VEXUTIL_UNLOAD_CYCLES 100
#endif

constexpr int kCycles = VEXUTIL_UNLOAD_CYCLES;
constexpr int kQueuedEvents = 200;

// Threads of this process now.
std::size_t threadCount() {
  std::size_t count = 0;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) {
    return 0;
  }
  while (const dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] != '.') {
      ++count;
    }
  }
  closedir(tasks);
  return count;
}

// True while an object of that name or file is mapped into the process.
bool isLoaded(const char* nameOrPath) {
  void* handle = dlopen(nameOrPath, RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) {
    return false;
  }
  dlclose(handle);
  return true;
}

}  // namespace

// 100 load / use / unload cycles: each unload takes libvexutil and its
// dispatcher thread out of the process, with subscriptions in force, the
// dispatcher held inside a delivery and events queued behind it.
TEST(ReliabilityUnload, RepeatedLoadUseUnloadLeavesNothingBehind) {
  ASSERT_FALSE(isLoaded(VEXUTIL_LIBRARY_SONAME)) << "the test must not link libvexutil";
  // A thread started and joined first makes a sanitizer runtime start its
  // own helper thread (ThreadSanitizer does at the first thread) before the
  // baseline is taken.
  std::thread([] {}).join();
  const std::size_t baseline = threadCount();
  ASSERT_GT(baseline, 0U);
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    void* module = dlopen(VEXUTIL_UNLOAD_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    ASSERT_TRUE(isLoaded(VEXUTIL_LIBRARY_SONAME));
    ASSERT_TRUE(isLoaded(VEXUTIL_LIBRARY_FILE));
    using RunCycle = int (*)(int);
    const auto runCycle = reinterpret_cast<RunCycle>(dlsym(module, "run_cycle"));
    ASSERT_NE(runCycle, nullptr) << dlerror();
    // The dispatcher is held, so every event published behind it is queued.
    EXPECT_EQ(runCycle(kQueuedEvents), kQueuedEvents);
    EXPECT_EQ(threadCount(), baseline + 1) << "exactly one dispatcher thread while loaded";
    ASSERT_EQ(dlclose(module), 0) << dlerror();
    EXPECT_FALSE(isLoaded(VEXUTIL_UNLOAD_MODULE)) << "the plug-in stayed loaded";
    ASSERT_FALSE(isLoaded(VEXUTIL_LIBRARY_SONAME)) << "libvexutil stayed loaded after its last user went";
    ASSERT_FALSE(isLoaded(VEXUTIL_LIBRARY_FILE));
    ASSERT_EQ(threadCount(), baseline) << "a thread outlived the unload";
  }
}
