#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  // The library reports on standard output; death tests read standard error.
  // Sending both to one stream lets a death test match the exact message.
  std::fflush(stdout);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  ::testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
