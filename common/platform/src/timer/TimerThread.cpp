#include "common/platform/src/timer/TimerThread.h"

#include <cxxabi.h>

#include <exception>

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/timer/TimerManager.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {

thread_local const InternalTimer* t_current = nullptr;

// A throwing callback must not take the worker down with it (and leave its
// timer running forever).  The forced-unwind catch binds a reference UBSan
// sees as null; that is how glibc implements cancellation.
__attribute__((no_sanitize("undefined"))) void run_callback(const InternalTimer* timer,
                                                            const CFunctor<uint64_t>& callback,
                                                            uint64_t userData) {
  t_current = timer;
  try {
    callback(userData);
  } catch (abi::__forced_unwind&) {
    t_current = nullptr;
    throw;
  } catch (const std::exception& e) {
    TC_LOG(2, "run_callback, callback of timer %s threw an exception: %s", timer->m_name, e.what());
  } catch (...) {
    TC_LOG(2, "run_callback, callback of timer %s threw an unknown exception", timer->m_name);
  }
  t_current = nullptr;
}

}  // namespace

CTimerThread::CTimerThread() : CThread("timer_task", POLICY_NORMAL, 64, 0) {}

CTimerThread::~CTimerThread() {
  shutdown();
  stop();
}

bool CTimerThread::assign(InternalTimer* timer) {
  InternalTimer* expected = nullptr;
  if (!m_timer.compare_exchange_strong(expected, timer)) return false;
  m_wake.post();
  return true;
}

bool CTimerThread::isFree() const { return m_timer.load() == nullptr; }

void CTimerThread::shutdown() {
  requestStop();
  m_wake.post();
}

const InternalTimer* CTimerThread::currentTimer() { return t_current; }

void CTimerThread::threadProc() {
  while (isRunning()) {
    m_wake.wait(0);
    InternalTimer* timer = m_timer.load();
    if (timer == nullptr) continue;
    run_timer(timer);
    // The record may be freed from here on: only our own slot is touched.
    m_timer.store(nullptr);
  }
}

void CTimerThread::run_timer(InternalTimer* timer) {
  CFunctor<uint64_t> callback;
  uint64_t userData;
  {
    CMutexGuard guard(&timer->m_lock);
    if (timer->m_status != TIMER_SCHEDULED) {
      // Stopped without wait while it was due: it is dropped, not run.
      timer->m_status = TIMER_IDLE;
      return;
    }
    timer->m_status = TIMER_RUNNING;
    callback = timer->m_callback;
    userData = timer->m_userData;
  }
  run_callback(timer, callback, userData);

  CMutexGuard guard(&timer->m_lock);
  if (timer->m_status != TIMER_STOPPING && timer->m_period != 0) {
    // The manager already moved the expiry on when it handed the timer over.
    timer->m_status = TIMER_SCHEDULED;
    CTimerManager::instance()->insert(timer);
  } else {
    timer->m_status = TIMER_IDLE;
  }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
