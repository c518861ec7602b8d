// The service binary as a child process, without a message bus: its signal
// policy, its exit status, and the bus start loop that nothing can end but a
// signal.  The running service with a bus is covered by tests/e2e.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"

using tc_test::ChildProcess;

namespace {

const std::string kService = TC_BINARY_DIR "/service/transparent-channel";
const char* const kRetryLine = "W start: start, dbus connect fail, try again";

class Entry : public testing::Test {
 protected:
  void SetUp() override { launch(); }
  void launch() {
    service = std::make_unique<ChildProcess>(std::vector<std::string>{kService});
    ASSERT_TRUE(service->started());
    ASSERT_TRUE(service->wait_for_line(kRetryLine, 5000)) << service->output();
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
    EXPECT_TRUE(service->wait_exit(15000, &status)) << service->output();
    return tc_test::exit_code(status);
  }
  // Index of the first line containing `text`, or -1.
  int find(const std::string& text) const {
    auto lines = service->lines();
    for (size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
  }
  std::unique_ptr<ChildProcess> service;
};

TEST_F(Entry, WithoutABusOnlyTheBusStartIsRetriedAboutOnceASecond) {
  const size_t before = service->count_lines(kRetryLine);
  std::this_thread::sleep_for(std::chrono::milliseconds(3200));
  const size_t retries = service->count_lines(kRetryLine) - before;
  EXPECT_GE(retries, 2u) << service->output();
  EXPECT_LE(retries, 5u) << service->output();
  EXPECT_EQ(service->count_lines("lora"), 0u) << service->output();
  EXPECT_EQ(service->count_lines("serial"), 0u) << service->output();
  EXPECT_EQ(service->count_lines("startup success"), 0u) << service->output();
  terminate(SIGTERM);
  EXPECT_EQ(finish(), 0);
}

TEST_F(Entry, TerminationSignalsEndTheStartLoopAndExitInOrder) {
  const std::pair<int, const char*> cases[] = {
      {SIGTERM, "caught Terminated signal, exit"}, {SIGINT, "caught Interrupt signal, exit"},
      {SIGQUIT, "caught Quit signal, exit"},       {SIGILL, "caught Illegal instruction signal, exit"},
      {SIGABRT, "caught Aborted signal, exit"},    {SIGUSR1, "caught User defined signal 1 signal, exit"},
  };
  for (const auto& [sig, line] : cases) {
    if (sig != SIGTERM) launch();
    terminate(sig);
    EXPECT_EQ(finish(), 0) << line;
    const int caught = find(std::string(" W system_signal_handler: ") + line);
    ASSERT_GE(caught, 0) << service->output();
    auto lines = service->lines();
    // No attempt after the signal; both LoRa subscriptions are still tried
    // (and fail without a bus); the exit line comes last.
    for (size_t i = static_cast<size_t>(caught); i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].find("dbus connect fail"), std::string::npos) << service->output();
    }
    size_t subscribes = 0;
    for (size_t i = static_cast<size_t>(caught); i < lines.size(); ++i) {
      subscribes += lines[i].find("subscribe config, block_call [-1] fail.") != std::string::npos;
    }
    EXPECT_GE(subscribes, 2u) << service->output();
    EXPECT_NE(lines.back().find(" I main: transparent-channel exit."), std::string::npos) << service->output();
  }
}

TEST_F(Entry, IgnoredSignalsChangeNothing) {
  for (int sig : {SIGPIPE, SIGHUP, SIGTSTP, SIGTTIN, SIGTTOU}) ASSERT_TRUE(service->signal(sig));
  int status;
  EXPECT_FALSE(service->wait_exit(1500, &status)) << "ended by an ignored signal";
  EXPECT_EQ(service->count_lines("caught"), 0u) << service->output();
  terminate(SIGTERM);
  EXPECT_EQ(finish(), 0);
}

TEST_F(Entry, SegvExits255WithoutTheExitLine) {
  terminate(SIGSEGV);
  EXPECT_EQ(finish(), 255);
  EXPECT_EQ(service->count_lines("caught Segmentation fault signal, exit"), 1u) << service->output();
  EXPECT_EQ(service->count_lines("transparent-channel exit."), 0u);
}

TEST_F(Entry, SecondSignalDoesNotRunShutdownTwice) {
  terminate(SIGTERM);
  service->signal(SIGINT);  // may arrive before or after the exit
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(service->count_lines("transparent-channel exit."), 1u) << service->output();
}

}  // namespace
