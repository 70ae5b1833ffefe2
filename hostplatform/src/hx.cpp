// SPDX-License-Identifier: MIT
// Stand-in implementation of the host utility library libhx.
#include "libhx.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

extern "C" {

int hxPrintf(const char* format, ...) {
  if (format == nullptr) {
    return -1;
  }
  va_list args;
  va_start(args, format);
  const int written = std::vfprintf(stdout, format, args);
  va_end(args);
  if (std::fflush(stdout) != 0) {
    return -1;
  }
  return written;
}

int hxPuts(const char* line) {
  if (line == nullptr) {
    return -1;
  }
  // One locked stream operation per call so that lines of concurrent callers
  // never interleave.
  flockfile(stdout);
  int result = std::fputs(line, stdout);
  if (result >= 0) {
    result = std::fputc('\n', stdout);
  }
  funlockfile(stdout);
  if (std::fflush(stdout) != 0) {
    return -1;
  }
  return result < 0 ? -1 : 0;
}

int hxIsSignalThread(void) {
  // On Linux the main thread's kernel thread id equals the process id.
  return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid() ? 1 : 0;
}

}  // extern "C"
