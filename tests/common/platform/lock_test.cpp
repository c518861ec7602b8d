#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "common/platform/src/lock/semaphore.h"

using namespace Zentrova::Iot::Platform;
using namespace std::chrono;

namespace {

std::atomic<int> g_signals{0};
void count_signal(int) { ++g_signals; }

// A post wakes the waiter at once and its count is taken; without one a timed
// wait gives up only once its whole time-out has passed.  Handled signals
// that interrupt the system's wait do not end it.
TEST(CSemaphore, WaitTakesAPostAtOnceOrWaitsOutItsTimeOutWhateverSignalsCome) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = count_signal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  struct Case {
    uint32_t timeout_ms;
    uint32_t initial;
    int signals;        // sent 50 ms apart from the start
    int post_after_ms;  // -1: nobody posts
    bool taken;
    long min_ms;
    long max_ms;
  };
  const Case cases[] = {
      {1, 0, 0, -1, false, 1, 1000},   {130, 0, 0, -1, false, 130, 2000}, {400, 0, 3, -1, false, 400, 2000},
      {5000, 0, 0, 30, true, 25, 2500}, {5000, 0, 3, 200, true, 195, 2500}, {0, 0, 3, 200, true, 195, 2500},
      {1, 1, 0, -1, true, 0, 1000},
  };
  const pthread_t waiter = pthread_self();
  for (const Case& c : cases) {
    SCOPED_TRACE("timeout " + std::to_string(c.timeout_ms) + ", " + std::to_string(c.signals) + " signals, post after " +
                 std::to_string(c.post_after_ms));
    CSemaphore s(c.initial);
    const int before = g_signals;
    std::thread poster([&] {
      for (int i = 0; i < c.signals; ++i) {
        std::this_thread::sleep_for(milliseconds(50));
        pthread_kill(waiter, SIGUSR2);
      }
      if (c.post_after_ms < 0) return;
      std::this_thread::sleep_for(milliseconds(c.post_after_ms - 50 * c.signals));
      s.post();
    });
    const auto start = steady_clock::now();
    EXPECT_EQ(s.wait(c.timeout_ms), c.taken);
    const long took = static_cast<long>(duration_cast<milliseconds>(steady_clock::now() - start).count());
    EXPECT_GE(took, c.min_ms);
    EXPECT_LT(took, c.max_ms);
    poster.join();
    EXPECT_EQ(g_signals - before, c.signals) << "the signals reached the waiting thread";
    EXPECT_FALSE(s.tryWait()) << "the count was taken once, or never given";
  }
  sigaction(SIGUSR2, &previous, nullptr);
}

}  // namespace
