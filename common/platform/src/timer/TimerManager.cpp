#include "common/platform/src/timer/TimerManager.h"

#include <cassert>
#include <cstdlib>
#include <new>

#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/timer/TimerThread.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kWorkerCount = 2;
constexpr uint32_t kTickMs = 10;
}  // namespace

CTimerManager* CTimerManager::instance() {
  static CTimerManager* manager = new CTimerManager();
  return manager;
}

CTimerManager::CTimerManager()
    : CThread("timer_manager", POLICY_NORMAL, 64, 0),
      m_workers(static_cast<CTimerThread**>(std::malloc(kWorkerCount * sizeof(CTimerThread*)))),
      m_workerCount(kWorkerCount),
      m_head(nullptr),
      m_lock("timer_manager") {
  if (m_workers == nullptr) throw std::bad_alloc();
  for (uint32_t i = 0; i < m_workerCount; ++i) {
    m_workers[i] = new CTimerThread();
    m_workers[i]->start();
  }
  start();
}

// Not reached in the service.  The manager thread goes first, so that it
// never hands a timer to a worker that is being deleted; each worker is then
// woken to see its cleared run flag, and waited for.
CTimerManager::~CTimerManager() {
  stop();
  {
    CMutexGuard guard(&m_lock);
    for (uint32_t i = 0; i < m_workerCount; ++i) m_workers[i]->shutdown();
  }
  for (uint32_t i = 0; i < m_workerCount; ++i) delete m_workers[i];
  std::free(m_workers);
}

bool CTimerManager::insert(InternalTimer* timer) {
  CMutexGuard guard(&m_lock);
  assert(1 == timer->m_status);
  const uint64_t expiry = timer->m_expiry;
  InternalTimer** link = &m_head;
  while (*link != nullptr && (*link)->m_expiry <= expiry) link = &(*link)->m_next;
  timer->m_next = *link;
  *link = timer;
  return true;
}

bool CTimerManager::remove(InternalTimer* timer) {
  CMutexGuard guard(&m_lock);
  for (InternalTimer** link = &m_head; *link != nullptr; link = &(*link)->m_next) {
    if (*link == timer) {
      *link = timer->m_next;
      timer->m_next = nullptr;
      return true;
    }
  }
  return false;
}

CTimerThread* CTimerManager::free_worker() const {
  for (uint32_t i = 0; i < m_workerCount; ++i) {
    if (m_workers[i]->isFree()) return m_workers[i];
  }
  return nullptr;
}

void CTimerManager::threadProc() {
  while (isRunning()) {
    sleepMs(kTickMs);
    CMutexGuard guard(&m_lock);
    const uint64_t now = tickMs();
    while (m_head != nullptr && m_head->m_expiry <= now) {
      CTimerThread* worker = free_worker();
      if (worker == nullptr) break;  // the head stays and is retried next pass
      InternalTimer* timer = m_head;
      // Read once: setPeriod may change it at any moment.
      const uint32_t period = timer->m_period;
      if (period != 0) {
        // Skip missed periods instead of running them back to back.
        const uint64_t expiry = timer->m_expiry;
        const uint64_t missed = (now - expiry) / period;
        timer->m_expiry = expiry + (missed + 1) * period;
      }
      // Taken before the hand-over: a one-shot timer may finish and be started
      // again (which clears its link) before we get to unlink it.
      InternalTimer* next = timer->m_next;
      worker->assign(timer);
      m_head = next;
    }
  }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
