#pragma once
// InternalTimer: the record behind one CTimer.  While armed it is linked into
// the timer manager's list, sorted by expiry.

#include <atomic>
#include <cstdint>

#include "common/platform/src/functor/Functor.h"
#include "common/platform/src/lock/Mutex.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

enum TimerStatus : uint32_t {
  TIMER_IDLE = 0,       // not armed
  TIMER_SCHEDULED = 1,  // in the manager's list, or handed to a worker and not yet running
  TIMER_RUNNING = 3,    // its callback is executing on a worker
  TIMER_STOPPING = 4,   // stop was requested; the worker or stop sets idle
};

struct InternalTimer {
  char m_name[128] = {};
  // The manager reads and advances the expiry, and reads the period, under its
  // own lock only, never the timer's: hence atomic.
  std::atomic<uint64_t> m_expiry{0};
  uint64_t m_userData = 0;
  std::atomic<uint32_t> m_period{0};
  // Read without the lock by isActive / isRunning.
  std::atomic<uint32_t> m_status{TIMER_IDLE};
  CMutex m_lock;  // guards status, period and the callback
  CFunctor<uint64_t> m_callback;
  InternalTimer* m_next = nullptr;  // the manager's list; under the manager's lock
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
