#pragma once
// CSemaphore: a counting semaphore whose timed wait polls in 50 ms steps.

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
  // 0 waits without limit; otherwise gives up after whole 50 ms steps.
  bool wait(uint32_t timeoutMs);

 private:
  sem_t m_semaphore;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
