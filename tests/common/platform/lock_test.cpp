#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "common/platform/src/lock/semaphore.h"

using namespace Zentrova::Iot::Platform;

namespace {

long ms_since(std::chrono::steady_clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

// A post wakes the waiter at once and its count is taken; without one a timed
// wait gives up only once its whole time-out has passed.
TEST(CSemaphore, WaitTakesAPostAtOnceOrWaitsOutItsTimeOut) {
  struct Case {
    uint32_t timeout_ms;
    uint32_t initial;
    int post_after_ms;  // -1: nobody posts
    bool taken;
    long min_ms;
    long max_ms;
  };
  const Case cases[] = {
      {1, 0, -1, false, 1, 1000},      {130, 0, -1, false, 130, 2000}, {5000, 0, 30, true, 25, 2500},
      {0, 0, 30, true, 25, 2500},      {1, 1, -1, true, 0, 1000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("timeout " + std::to_string(c.timeout_ms) + ", post after " + std::to_string(c.post_after_ms));
    CSemaphore s(c.initial);
    std::thread poster([&] {
      if (c.post_after_ms < 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(c.post_after_ms));
      s.post();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.wait(c.timeout_ms), c.taken);
    const long took = ms_since(start);
    EXPECT_GE(took, c.min_ms);
    EXPECT_LT(took, c.max_ms);
    poster.join();
    EXPECT_FALSE(s.tryWait()) << "the count was taken once, or never given";
  }
}

std::atomic<int> g_signals{0};
void count_signal(int) { g_signals.fetch_add(1); }

// A handled signal interrupts the system's wait; the wait goes on regardless.
TEST(CSemaphore, HandledSignalsDoNotEndAWait) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = count_signal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  for (uint32_t timeout : {0u, 400u}) {
    SCOPED_TRACE("timeout " + std::to_string(timeout));
    CSemaphore s(0);
    std::atomic<bool> done{false};
    bool taken = false;
    const int before = g_signals.load();
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] {
      taken = s.wait(timeout);
      done = true;
    });
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      pthread_kill(waiter.native_handle(), SIGUSR2);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done) << "ended by a signal";
    EXPECT_EQ(g_signals.load() - before, 3) << "the signals reached the waiting thread";
    if (timeout == 0) s.post();
    waiter.join();
    EXPECT_EQ(taken, timeout == 0);
    EXPECT_GE(ms_since(start), timeout == 0 ? 200 : static_cast<long>(timeout));
  }
  sigaction(SIGUSR2, &previous, nullptr);
}

}  // namespace
