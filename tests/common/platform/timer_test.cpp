#include "common/platform/src/timer/Timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "common/platform/src/thread/Thread.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Platform;
using tc_test::eventually;

namespace {

// A timer callback that records the user data it ran with, and can be told
// to block, or to stop a timer from inside.
struct Probe {
  CFunctor<uint64_t> callback() { return CFunctor<uint64_t>(this, &Probe::fire); }
  std::atomic<bool> hold{false};             // while set, the callback waits (at most 3 s)
  std::atomic<uint32_t> blockOnceMs{0};      // the next call sleeps this long
  std::atomic<CTimer*> stopInside{nullptr};  // stop(true) this timer from the callback
  std::atomic<int> entered{0};
  std::atomic<int> finished{0};
  std::mutex mutex;
  std::vector<uint64_t> data;

  void fire(uint64_t value) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      data.push_back(value);
    }
    ++entered;
    if (CTimer* t = stopInside.exchange(nullptr)) t->stop(true);
    for (int i = 0; hold && i < 600; ++i) CThread::sleepMs(5);
    if (uint32_t ms = blockOnceMs.exchange(0)) CThread::sleepMs(ms);
    ++finished;
  }
};

// Both workers blocked: due timers wait.  With one worker freed they go
// through it one by one, earliest expiry first, equal expiries in start order.
TEST(CTimer, DueTimersWaitForAFreeWorkerAndFireInExpiryThenStartOrder) {
  Probe first, second, seq;
  first.hold = true;
  second.hold = true;
  CTimer blocker1("blocker_1"), blocker2("blocker_2");
  ASSERT_TRUE(blocker1.start(first.callback(), 0, 0, 0));
  ASSERT_TRUE(blocker2.start(second.callback(), 0, 0, 0));
  ASSERT_TRUE(eventually([&] { return first.entered == 1 && second.entered == 1; }));
  EXPECT_TRUE(blocker1.isRunning());

  CTimer late("late"), tieA("tie_a"), tieB("tie_b"), early("early");
  // Start the tied pair right after a tick so that they share an expiry.
  for (uint64_t edge = tickMs(); tickMs() == edge;) {
  }
  ASSERT_TRUE(late.start(seq.callback(), 0, 80, 4));
  ASSERT_TRUE(tieA.start(seq.callback(), 0, 40, 2));
  ASSERT_TRUE(tieB.start(seq.callback(), 0, 40, 3));
  ASSERT_TRUE(early.start(seq.callback(), 0, 20, 1));
  CThread::sleepMs(250);
  EXPECT_EQ(seq.entered, 0);
  EXPECT_TRUE(early.isActive());
  EXPECT_FALSE(early.isRunning());

  first.hold = false;
  ASSERT_TRUE(eventually([&] { return seq.finished == 4; }));
  EXPECT_TRUE(blocker2.isRunning());
  second.hold = false;
  EXPECT_EQ(seq.data, (std::vector<uint64_t>{1, 2, 3, 4}));
}

// stop(true) returns only after the running callback, takes a waiting timer
// out at once, does not wait for itself from inside its own callback; a
// handle destroyed while its callback runs waits too (ASan would catch the
// worker touching a freed record).
TEST(CTimer, StopWithWaitReturnsOnlyAfterTheRunningCallback) {
  Probe probe;
  probe.blockOnceMs = 300;
  CTimer timer("stop_wait");
  ASSERT_TRUE(timer.start(probe.callback(), 50, 0, 0));
  ASSERT_TRUE(eventually([&] { return probe.entered == 1; }));
  EXPECT_TRUE(timer.isRunning());
  EXPECT_TRUE(timer.stop(true));
  EXPECT_EQ(probe.finished, 1);
  EXPECT_FALSE(timer.isActive());
  EXPECT_FALSE(timer.stop(true));

  Probe idle;
  ASSERT_TRUE(timer.start(idle.callback(), 0, 100, 0));
  const uint64_t begin = tickMs();
  EXPECT_TRUE(timer.stop(true));
  EXPECT_LT(tickMs() - begin, 50u);

  Probe doomed;
  doomed.blockOnceMs = 200;
  auto* handle = new CTimer("doomed");
  ASSERT_TRUE(handle->start(doomed.callback(), 0, 0, 0));
  ASSERT_TRUE(eventually([&] { return doomed.entered == 1; }));
  delete handle;
  EXPECT_EQ(doomed.finished, 1);

  Probe self;
  CTimer selfStopping("self_stop");
  self.stopInside = &selfStopping;
  ASSERT_TRUE(selfStopping.start(self.callback(), 30, 0, 0));
  ASSERT_TRUE(eventually([&] { return !selfStopping.isActive(); }));
  CThread::sleepMs(200);
  EXPECT_EQ(self.entered, 1);
  EXPECT_EQ(probe.entered, 1) << "not re-armed";
  EXPECT_EQ(idle.entered, 0);
}

}  // namespace
