// The stand-in host platform behaves as a host's would.
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>

#include "Corvane/System/CriticalSection.h"
#include "Corvane/System/IUserException.h"
#include "Corvane/System/InternalException.h"
#include "Corvane/System/ObjectOutput.h"
#include "Corvane/System/ThreadId.h"
#include "Corvane/System/UserException.h"
#include "libhx.h"

using Corvane::System::CriticalSection;
using Corvane::System::ThreadId;

// Only the process's main thread is the signal thread.
TEST(HostPlatform, SignalThreadIsTheMainThreadOnly) {
  EXPECT_NE(hxIsSignalThread(), 0);
  int onWorker = -1;
  std::thread worker([&onWorker] { onWorker = hxIsSignalThread(); });
  worker.join();
  EXPECT_EQ(onWorker, 0);
}

// hxPrintf formats and hxPuts appends a line end; both reach standard output.
TEST(HostPlatform, TextOutputReachesStandardOutput) {
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(hxPrintf("%s|%d", "abc", 42), 6);
  EXPECT_GE(hxPuts("line"), 0);
  EXPECT_LT(hxPuts(nullptr), 0);
  EXPECT_LT(hxPrintf(nullptr), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "abc|42line\n");
}

// Thread ids identify threads; a default id is no thread; ids are never reused.
TEST(HostPlatform, ThreadIdsAreUniqueAndStable) {
  const ThreadId mine = ThreadId::self();
  EXPECT_EQ(mine, ThreadId::self());
  EXPECT_TRUE(mine.isValid());
  EXPECT_FALSE(ThreadId().isValid());
  EXPECT_NE(ThreadId(), mine);

  ThreadId first;
  ThreadId second;
  std::thread([&first] { first = ThreadId::self(); }).join();
  // The second thread may well reuse the first one's pthread handle.
  std::thread([&second] { second = ThreadId::self(); }).join();
  EXPECT_NE(first, mine);
  EXPECT_NE(second, mine);
  EXPECT_NE(first, second);
}

// The critical section is re-entrant and excludes other threads until fully released.
TEST(HostPlatform, CriticalSectionIsReentrantAndExclusive) {
  CriticalSection section;
  section.acquire();
  section.acquire();
  std::atomic<bool> otherGotIn{false};
  std::thread other([&] {
    section.acquire();
    otherGotIn = true;
    section.release();
  });
  section.release();
  // Still held once: the other thread cannot be inside yet.
  EXPECT_FALSE(otherGotIn.load());
  section.release();
  other.join();
  EXPECT_TRUE(otherGotIn.load());
}

// A release by a thread that does not own the section leaves it intact.
TEST(HostPlatform, ForeignReleaseIsIgnored) {
  CriticalSection section;
  section.acquire();
  std::thread([&section] { section.release(); }).join();
  std::atomic<bool> otherGotIn{false};
  std::thread other([&] {
    section.acquire();
    otherGotIn = true;
    section.release();
  });
  EXPECT_FALSE(otherGotIn.load());
  section.release();
  other.join();
  EXPECT_TRUE(otherGotIn.load());
}

// A user exception carries two texts and is caught through its interface.
TEST(HostPlatform, UserExceptionIsCaughtByInterface) {
  try {
    throw Corvane::System::UserException("Loader", "file is damaged");
  } catch (const Corvane::System::IUserException& caught) {
    EXPECT_EQ(caught.getSource(), "Loader");
    EXPECT_EQ(caught.getMessage(), "file is damaged");
    return;
  }
  FAIL() << "not caught as IUserException";
}

// Throwables write themselves through the four writers.
TEST(HostPlatform, ThrowableWritesItself) {
  const Corvane::System::InternalException failure("broken");
  std::ostringstream text;
  Corvane::System::ObjectOutput out(text);
  failure.writeExternal(out);
  failure.writeLocalizedMsg(out);
  EXPECT_NE(text.str().find("message=broken"), std::string::npos);
  EXPECT_NE(text.str().find("localized=broken"), std::string::npos);
}
