// The platform layer: the semaphore's waits, the thread's stop, the timer
// workers' order and stop.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "common/platform/src/lock/semaphore.h"
#include "common/platform/src/thread/Thread.h"
#include "common/platform/src/timer/Timer.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Platform;
using namespace std::chrono;
using tc_test::eventually;

namespace {

// A post wakes the waiter at once and its count is taken; without one a timed
// wait gives up only once its whole time-out has passed.  Handled signals
// that interrupt the system's wait do not end it.
TEST(CSemaphore, WaitTakesAPostAtOnceOrWaitsOutItsTimeOutWhateverSignalsCome) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
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
    SCOPED_TRACE(testing::Message() << c.timeout_ms << " ms, " << c.signals << " signals, post at " << c.post_after_ms);
    CSemaphore s(c.initial);
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
    EXPECT_FALSE(s.tryWait()) << "the count was taken once, or never given";
  }
}

// A loop that honours the run flag, ignores it or throws; leaving its body
// takes 200 ms, a cancellation's unwinding included.
class Looper : public CThread {
 public:
  enum Kind { obeys, ignores, throws };
  explicit Looper(Kind kind) : CThread("looper", POLICY_NORMAL, 64, 0), m_kind(kind) {}
  ~Looper() override { stop(); }
  std::atomic<int> passes{0};
  std::atomic<bool> unwound{false};

 protected:
  struct SlowExit {
    ~SlowExit() {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      owner->unwound = true;
    }
    Looper* owner;
  };
  void threadProc() override {
    SlowExit exit{this};
    while (m_kind == ignores || isRunning()) {
      if (m_kind == throws) throw std::runtime_error("boom");
      ++passes;
      sleepMs(5);
    }
  }

 private:
  const Kind m_kind;
};

// stop() returns only once the thread has ended, cancelled after 3 s or not,
// so the owner may be deleted right away (the sanitizer builds see any late
// touch); an exception ends the thread with one line.
TEST(CThread, StopReturnsOnceTheThreadHasEndedCancelledOrNot) {
  tc_test::LogCaptureScope capture;
  for (Looper::Kind kind : {Looper::obeys, Looper::ignores}) {
    SCOPED_TRACE(kind == Looper::obeys ? "ends on its own" : "ignores the flag");
    auto* t = new Looper(kind);
    ASSERT_TRUE(t->start());
    EXPECT_TRUE(eventually([&] { return t->passes > 0; }));
    const uint64_t begin = tickMs();
    t->stop();
    const uint64_t took = tickMs() - begin;
    EXPECT_TRUE(t->isStopped());
    EXPECT_TRUE(t->unwound) << "stop returned while the thread was still unwinding";
    EXPECT_EQ(took >= 2900u, kind == Looper::ignores) << took;
    delete t;
  }
  EXPECT_EQ(capture.count("stop, looper did not end within 3000 ms, cancel it"), 1u) << capture.dump();
  Looper thrower(Looper::throws);
  ASSERT_TRUE(thrower.start());
  EXPECT_TRUE(eventually([&] { return thrower.isStopped(); }));
  EXPECT_EQ(capture.count("threadProc, looper ended by an exception: boom"), 1u) << capture.dump();
}

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

  CTimer late("late"), tieA("tie_a"), tieB("tie_b"), early("early");
  // Start the tied pair right after a tick so that they share an expiry.
  for (uint64_t edge = tickMs(); tickMs() == edge;) std::this_thread::yield();
  ASSERT_TRUE(late.start(seq.callback(), 0, 80, 4));
  ASSERT_TRUE(tieA.start(seq.callback(), 0, 40, 2));
  ASSERT_TRUE(tieB.start(seq.callback(), 0, 40, 3));
  ASSERT_TRUE(early.start(seq.callback(), 0, 20, 1));
  CThread::sleepMs(250);
  EXPECT_EQ(seq.entered, 0);
  EXPECT_TRUE(early.isActive());

  first.hold = false;
  ASSERT_TRUE(eventually([&] { return seq.finished == 4; }));
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
