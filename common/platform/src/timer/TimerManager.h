#pragma once
// CTimerManager: the process-wide timer thread ("timer_manager").  Armed
// timers wait in a list sorted by expiry; every 10 ms the due ones are handed
// to a fixed pool of CTimerThread workers, so callbacks never run here and at
// most as many run at once as there are workers.
//
// Lock order: a timer's lock, then the manager's.  The manager never takes a
// timer's lock.

#include <cstdint>

#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/thread/Thread.h"
#include "common/platform/src/timer/InternalTimer.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

class CTimerThread;

class CTimerManager : public CThread {
 public:
  // Built, with its threads, on the first call; never destroyed.  The first
  // call must not race with another.
  static CTimerManager* instance();

  // The timer must be scheduled; equal expiries keep their insertion order.
  bool insert(InternalTimer* timer);
  // True when the timer was waiting in the list and has been taken out.
  bool remove(InternalTimer* timer);

 protected:
  void threadProc() override;

 private:
  CTimerManager();
  ~CTimerManager() override;

  CTimerThread* free_worker() const;

  CTimerThread** m_workers;
  uint32_t m_workerCount;
  InternalTimer* m_head;
  CMutex m_lock;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
