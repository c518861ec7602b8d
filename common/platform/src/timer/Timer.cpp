#include "common/platform/src/timer/Timer.h"

#include <cstring>

#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/thread/Thread.h"
#include "common/platform/src/timer/TimerManager.h"
#include "common/platform/src/timer/TimerThread.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kStopStepMs = 10;
}

CTimer::CTimer(const char* name) : m_timer(new InternalTimer) {
  if (name != nullptr) {
    const size_t length = strnlen(name, sizeof(m_timer->m_name) - 1);
    std::memcpy(m_timer->m_name, name, length);
    m_timer->m_name[length] = '\0';
  }
}

CTimer::~CTimer() {
  stop(true);
  delete m_timer;
}

bool CTimer::start(CFunctor<uint64_t> callback, uint32_t periodMs, uint32_t delayMs, uint64_t userData) {
  CMutexGuard guard(&m_timer->m_lock);
  if (m_timer->m_status != TIMER_IDLE) return false;
  m_timer->m_status = TIMER_SCHEDULED;
  m_timer->m_callback = callback;
  m_timer->m_period = periodMs;
  m_timer->m_userData = userData;
  m_timer->m_expiry = tickMs() + delayMs;
  m_timer->m_next = nullptr;
  CTimerManager::instance()->insert(m_timer);
  return true;
}

bool CTimer::stop(bool wait) {
  CMutexGuard guard(&m_timer->m_lock);
  if (m_timer->m_status == TIMER_IDLE) return false;
  m_timer->m_status = TIMER_STOPPING;
  // From inside its own callback the wait would never end; the worker sets
  // idle once the callback returns.
  if (!wait || CTimerThread::currentTimer() == m_timer) return true;
  // Done when the worker has finished with it, or when it was still waiting
  // in the list; otherwise let a running callback end.
  while (m_timer->m_status != TIMER_IDLE && !CTimerManager::instance()->remove(m_timer)) {
    m_timer->m_lock.unlock();
    CThread::sleepMs(kStopStepMs);
    m_timer->m_lock.lock();
  }
  m_timer->m_status = TIMER_IDLE;
  return true;
}

bool CTimer::isActive() const { return m_timer->m_status != TIMER_IDLE; }

bool CTimer::isRunning() const { return m_timer->m_status == TIMER_RUNNING; }

void CTimer::setPeriod(uint32_t periodMs) {
  CMutexGuard guard(&m_timer->m_lock);
  m_timer->m_period = periodMs;
}

const char* CTimer::name() const { return m_timer->m_name; }

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
