#include "common/platform/src/thread/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Platform;
using tc_test::eventually;

namespace {

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

}  // namespace
