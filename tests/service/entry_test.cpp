// The service binary as a child process, without a message bus: the signal
// policy of its bus start loop, which nothing but a signal can end.  The
// running service with a bus is covered by tests/e2e.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace {

// A signal sent while the start loop retries, or one pending from the very
// start (blocked by the parent), which must end the service before any attempt.
TEST(Entry, TerminationSignalsEndTheStartLoopAndExitInOrder) {
  const std::pair<int, const char*> cases[] = {
      {SIGTERM, "Terminated"}, {SIGINT, "Interrupt"},          {SIGQUIT, "Quit"},
      {SIGILL, "Illegal instruction"}, {SIGABRT, "Aborted"}, {SIGUSR1, "User defined signal 1"},
  };
  for (bool pending : {false, true}) {
    for (const auto& [sig, name] : cases) {
      if (pending && sig != SIGTERM && sig != SIGINT) continue;
      SCOPED_TRACE(std::string(name) + (pending ? " pending at start" : ""));
      tc_test::ChildProcess service({TC_BINARY_DIR "/service/transparent-channel"},
                                    pending ? std::vector<int>{sig} : std::vector<int>{});
      ASSERT_TRUE(pending || service.wait_for_line("W start: start, dbus connect fail, try again", 5000));
      ASSERT_TRUE(pending || service.signal(sig));
#if defined(__SANITIZE_THREAD__)
      // ThreadSanitizer's runtime now and then drops a signal that lands while
      // the main thread enters a blocking call; one resend keeps this about the service.
      if (!pending && !service.wait_for_line("caught ", 2000)) {
        ASSERT_TRUE(service.signal(sig));
      }
#endif
      int status = 0;
      ASSERT_TRUE(service.wait_exit(15000, &status)) << service.output();
      EXPECT_EQ(tc_test::exit_code(status), 0);
      const auto lines = service.lines();
      size_t at = 0;
      const std::string caught = std::string(" W system_signal_handler: caught ") + name + " signal, exit";
      while (at < lines.size() && lines[at].find(caught) == std::string::npos) ++at;
      ASSERT_LT(at, lines.size()) << service.output();
      EXPECT_EQ(service.count_lines(" W system_signal_handler: caught "), 1u);
      // No attempt after the signal; both LoRa subscriptions are still tried
      // (and fail without a bus); the exit line comes last.
      size_t subscribes = 0;
      for (size_t i = at; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].find("dbus connect fail"), std::string::npos) << service.output();
        subscribes += lines[i].find("subscribe config, block_call [-1] fail.") != std::string::npos;
      }
      EXPECT_EQ(service.count_lines("transparent-channel exit."), 1u);
      EXPECT_EQ(service.count_lines("startup success") + (pending ? service.count_lines("dbus connect fail") : 0), 0u);
      EXPECT_TRUE(pending || subscribes >= 2) << service.output();
      EXPECT_NE(lines.back().find(" I main: transparent-channel exit."), std::string::npos) << service.output();
    }
  }
}

}  // namespace
