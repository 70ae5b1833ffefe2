// The tests' main: runs on the process's main thread, which the host
// platform reports as its signal thread.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
