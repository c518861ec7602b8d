#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "common/platform/src/thread/Thread.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Platform;

namespace {

using tc_test::eventually;

// Counts passes of a loop that honours the run flag (or not).
class Looper : public CThread {
 public:
  explicit Looper(bool obey = true) : CThread("looper", POLICY_NORMAL, 64, 0), m_obey(obey) {}
  ~Looper() override { stop(); }
  std::atomic<int> passes{0};
  std::atomic<bool> throwIt{false};
  std::atomic<bool> slowExit{false};
  std::atomic<bool> unwound{false};

 protected:
  // With slowExit, leaving the body takes a while, a cancellation's unwinding included.
  struct SlowExit {
    ~SlowExit() {
      if (!owner->slowExit) return;
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      owner->unwound = true;
    }
    Looper* owner;
  };

  void threadProc() override {
    SlowExit exit{this};
    while (!m_obey || isRunning()) {
      if (throwIt) throw std::runtime_error("boom");
      ++passes;
      sleepMs(5);
    }
  }

 private:
  bool m_obey;
};

// stop() returns only once the thread has ended, so the owner may be deleted
// right away (the sanitizer builds see any late touch).
TEST(CThread, StopReturnsOnceTheThreadHasEndedCancelledOrNot) {
  tc_test::LogCaptureScope capture;
  for (bool obey : {true, false}) {
    SCOPED_TRACE(obey ? "ends on its own" : "ignores the flag");
    auto* t = new Looper(obey);
    t->slowExit = true;
    ASSERT_TRUE(t->start());
    EXPECT_TRUE(eventually([&] { return t->passes > 0; }));
    const uint64_t begin = tickMs();
    t->stop();
    const uint64_t took = tickMs() - begin;
    EXPECT_TRUE(t->isStopped());
    EXPECT_TRUE(t->unwound) << "stop returned while the thread was still unwinding";
    if (obey) {
      EXPECT_LT(took, 2900u);
    } else {
      EXPECT_GE(took, 2900u);
    }
    delete t;
  }
  EXPECT_EQ(capture.count("stop, looper did not end within 3000 ms, cancel it"), 1u) << capture.dump();
}

TEST(CThread, ExceptionEndsTheThreadWithOneLine) {
  tc_test::LogCaptureScope capture;
  Looper t;
  t.throwIt = true;
  ASSERT_TRUE(t.start());
  EXPECT_TRUE(eventually([&] { return t.isStopped(); }));
  EXPECT_EQ(capture.count("threadProc, looper ended by an exception: boom"), 1u) << capture.dump();
}

}  // namespace
