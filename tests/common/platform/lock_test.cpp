#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/lock/semaphore.h"
#include "common/platform/src/thread/Thread.h"

using namespace Zentrova::Iot::Platform;

namespace {

TEST(CMutex, GuardExcludesAndReleasesOnEveryPath) {
  CMutex m("counter");
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        CMutexGuard g(&m);
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
  {
    CMutexGuard g(&m);
    std::thread other([&] { EXPECT_FALSE(m.tryLock()); });
    other.join();
  }
  EXPECT_TRUE(m.tryLock());
  EXPECT_EQ(m.unlock(), 0);
}

TEST(CSemaphore, TimedWaitTakesWholeFiftyMillisecondSteps) {
  CSemaphore s(0);
  uint64_t a = tickMs();
  EXPECT_FALSE(s.wait(1));  // one try, then the step's sleep
  uint64_t one = tickMs() - a;
  EXPECT_GE(one, 40u);
  a = tickMs();
  EXPECT_FALSE(s.wait(51));  // rounded up to two steps
  EXPECT_GE(tickMs() - a, 90u);
}

TEST(CSemaphore, CountIsSampledOnlyAtTheStartOfAStep) {
  CSemaphore s(0);
  std::thread poster([&] {
    CThread::sleepMs(20);
    s.post();
  });
  EXPECT_FALSE(s.wait(50));  // the single try came before the post
  poster.join();
  EXPECT_TRUE(s.tryWait());  // the post was not consumed

  std::thread again([&] {
    CThread::sleepMs(20);
    s.post();
  });
  EXPECT_TRUE(s.wait(51));  // the second try finds it
  again.join();
}

TEST(CSemaphore, UntimedWaitBlocksUntilPostedAndSurvivesSignals) {
  CSemaphore s(0);
  std::atomic<bool> done{false};
  std::thread waiter([&] {
    EXPECT_TRUE(s.wait(0));
    done = true;
  });
  CThread::sleepMs(60);
  EXPECT_FALSE(done);
  pthread_kill(waiter.native_handle(), SIGURG);  // ignored by default, interrupts sem_wait
  CThread::sleepMs(30);
  EXPECT_FALSE(done);
  s.post();
  waiter.join();
  EXPECT_TRUE(done);
}

}  // namespace
