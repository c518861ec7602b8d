#pragma once
// CSemaphore: a counting semaphore whose timed wait sleeps until a post or a
// deadline on the monotonic clock.

#include <semaphore.h>

#include <cstdint>

namespace Zentrova {
namespace Iot {
namespace Platform {

class CSemaphore {
 public:
  explicit CSemaphore(uint32_t value = 0);
  ~CSemaphore();
  CSemaphore(const CSemaphore&) = delete;
  CSemaphore& operator=(const CSemaphore&) = delete;

  // Async-signal-safe.
  int post();
  bool tryWait();
  // True when a count was taken; false once at least timeoutMs have passed.
  // 0 waits without limit.  Signals do not end the wait.
  bool wait(uint32_t timeoutMs);

 private:
  sem_t m_semaphore;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
