#pragma once
// CTimer: handle of one one-shot or periodic millisecond timer.  The callback
// runs on a timer worker with the user data as its argument.
//
// A callback must not destroy its own handle.  It may stop its own timer; that
// stop does not wait (it would wait for itself) and the timer is not re-armed.

#include <cstdint>

#include "common/platform/src/functor/Functor.h"
#include "common/platform/src/timer/InternalTimer.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

class CTimer {
 public:
  // The name is kept to its first 127 characters.
  explicit CTimer(const char* name);
  // Stops with wait: a running callback is allowed to finish first.
  ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // Arms the timer: first run after delayMs, then every periodMs (0: once).
  // False, with nothing changed, when it is not idle.
  bool start(CFunctor<uint64_t> callback, uint32_t periodMs, uint32_t delayMs, uint64_t userData);
  // False when it was idle.  With wait, returns once the timer is idle; without,
  // a waiting timer is dropped by the worker when it falls due.
  bool stop(bool wait);
  bool isActive() const;
  bool isRunning() const;
  // Takes effect when the timer is next re-armed.
  void setPeriod(uint32_t periodMs);
  const char* name() const;

 private:
  InternalTimer* m_timer;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
