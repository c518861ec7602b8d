// The service binary as a child process: its signal policy and exit status.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/support/child_process.h"

using tc_test::ChildProcess;

namespace {

const std::string kService = TC_BINARY_DIR "/service/transparent-channel";

class Entry : public testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<ChildProcess>(std::vector<std::string>{kService});
    ASSERT_TRUE(service->started());
    ASSERT_TRUE(service->wait_for_line("transparent-channel start.", 5000)) << service->output();
  }
  // Sends a termination signal and waits for the service to notice it.
  void terminate(int sig) {
    ASSERT_TRUE(service->signal(sig));
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer's runtime now and then drops a signal that lands while
    // the main thread enters a blocking call (seen once in ~20 runs, never
    // without it); one resend keeps this suite about the service.
    if (!service->wait_for_line("caught ", 2000)) ASSERT_TRUE(service->signal(sig));
#endif
  }
  // Waits for exit and returns the exit code.
  int finish() {
    int status = 0;
    EXPECT_TRUE(service->wait_exit(10000, &status)) << service->output();
    return tc_test::exit_code(status);
  }
  std::unique_ptr<ChildProcess> service;
};

TEST_F(Entry, TerminationSignalsEndInOrderWithStatusZero) {
  const std::pair<int, const char*> cases[] = {
      {SIGTERM, "caught Terminated signal, exit"}, {SIGINT, "caught Interrupt signal, exit"},
      {SIGQUIT, "caught Quit signal, exit"},       {SIGILL, "caught Illegal instruction signal, exit"},
      {SIGABRT, "caught Aborted signal, exit"},    {SIGUSR1, "caught User defined signal 1 signal, exit"},
  };
  for (const auto& [sig, line] : cases) {
    if (sig != SIGTERM) SetUp();
    ASSERT_TRUE(service->wait_for_line("start, transparent-channel startup success.", 5000)) << service->output();
    terminate(sig);
    EXPECT_EQ(finish(), 0) << line;
    auto lines = service->lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].find(std::string(" W system_signal_handler: ") + line), std::string::npos)
        << service->output();
    EXPECT_NE(lines.back().find(" I main: transparent-channel exit."), std::string::npos) << service->output();
  }
}

TEST_F(Entry, IgnoredSignalsChangeNothing) {
  ASSERT_TRUE(service->wait_for_line("startup success.", 5000));
  for (int sig : {SIGPIPE, SIGHUP, SIGTSTP, SIGTTIN, SIGTTOU}) ASSERT_TRUE(service->signal(sig));
  int status;
  EXPECT_FALSE(service->wait_exit(300, &status)) << "ended by an ignored signal";
  EXPECT_EQ(service->count_lines("caught"), 0u) << service->output();
  terminate(SIGTERM);
  EXPECT_EQ(finish(), 0);
}

TEST_F(Entry, SegvExits255WithoutTheExitLine) {
  ASSERT_TRUE(service->wait_for_line("startup success.", 5000));
  terminate(SIGSEGV);
  EXPECT_EQ(finish(), 255);
  EXPECT_EQ(service->count_lines("caught Segmentation fault signal, exit"), 1u) << service->output();
  EXPECT_EQ(service->count_lines("transparent-channel exit."), 0u);
}

TEST_F(Entry, SecondSignalDoesNotRunShutdownTwice) {
  ASSERT_TRUE(service->wait_for_line("startup success.", 5000));
  ASSERT_TRUE(service->signal(SIGTERM));
  service->signal(SIGINT);  // may arrive before or after the exit
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(service->count_lines("transparent-channel exit."), 1u) << service->output();
}

}  // namespace
