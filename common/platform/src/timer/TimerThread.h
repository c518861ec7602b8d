#pragma once
// CTimerThread: one worker of the timer manager ("timer_task").  It sleeps on
// its semaphore until the manager hands it a due timer, runs the callback with
// no lock held and re-arms a periodic timer.

#include <atomic>

#include "common/platform/src/lock/semaphore.h"
#include "common/platform/src/thread/Thread.h"
#include "common/platform/src/timer/InternalTimer.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

class CTimerThread : public CThread {
 public:
  CTimerThread();
  ~CTimerThread() override;

  // Hands a due timer over and wakes the worker; refused while the previous
  // timer is still in hand.
  bool assign(InternalTimer* timer);
  bool isFree() const;
  // Clears the run flag and wakes the worker so that it notices.
  void shutdown();
  // The timer whose callback is running on the calling thread; null on any
  // thread that is not inside a timer callback.
  static const InternalTimer* currentTimer();

 protected:
  void threadProc() override;

 private:
  void run_timer(InternalTimer* timer);

  std::atomic<InternalTimer*> m_timer{nullptr};  // null when free
  CSemaphore m_wake{0};
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
