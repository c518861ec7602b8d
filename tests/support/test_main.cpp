// Shared main of every test binary.

#include <gtest/gtest.h>
#include <signal.h>

#include "common/log/log.h"

int main(int argc, char** argv) {
  // The service ignores SIGPIPE; code under test relies on that.
  signal(SIGPIPE, SIG_IGN);
  // Tests read lines through the capture hook; the terminal only gets failures.
  log_init("tc-test", 0, 0, 2);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
