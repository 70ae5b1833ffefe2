// SPDX-License-Identifier: MIT
// The stand-in host platform behaves as a host's would.
#include "Corvane/System/CriticalSection.h"
#include "UnitTest.h"
#include "libhx.h"

// hxPrintf formats and hxPuts appends a line end, both to standard output; null text writes nothing.
TEST(HostPlatform, TextOutputReachesStandardOutput) {
  EXPECT_EQ(printedBy([] {
              EXPECT_EQ(hxPrintf("%s|%d", "abc", 42), 6);
              EXPECT_GE(hxPuts("line"), 0);
              EXPECT_LT(hxPuts(nullptr), 0);
              EXPECT_LT(hxPrintf(nullptr), 0);
            }),
            "abc|42line\n");
}

// Only the main thread is the signal thread; each thread has its own valid id, and a default id is none.
TEST(HostPlatform, ThreadIdentity) {
  int onWorker = -1;
  ThreadId worker;
  std::thread([&] {
    onWorker = hxIsSignalThread();
    worker = ThreadId::self();
  }).join();
  EXPECT_NE(hxIsSignalThread(), 0);
  EXPECT_EQ(onWorker, 0);
  EXPECT_TRUE(worker.isValid() && ThreadId::self().isValid() && worker != ThreadId::self());
  EXPECT_FALSE(ThreadId().isValid());
}

// The section is re-entrant, ignores a foreign release and keeps others out until fully released.
TEST(HostPlatform, CriticalSectionIsReentrantAndExclusive) {
  Corvane::System::CriticalSection section;
  section.acquire();
  section.acquire();
  std::thread([&section] { section.release(); }).join();  // Foreign: ignored.
  std::atomic<bool> otherGotIn{false};
  std::thread other([&] {
    section.acquire();
    otherGotIn = true;
    section.release();
  });
  section.release();
  EXPECT_FALSE(otherGotIn.load());  // Still held once.
  section.release();
  other.join();
  EXPECT_TRUE(otherGotIn.load());
}
