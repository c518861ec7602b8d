#include "common/platform/src/lock/semaphore.h"

#include <cassert>
#include <cerrno>

#include "common/platform/src/thread/Thread.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kStepMs = 50;
}

CSemaphore::CSemaphore(uint32_t value) {
  int ret = sem_init(&m_semaphore, 0, value);
  assert(0 == ret);
  (void)ret;
}

CSemaphore::~CSemaphore() {
  int ret = sem_destroy(&m_semaphore);
  assert(0 == ret);
  (void)ret;
}

int CSemaphore::post() { return sem_post(&m_semaphore); }

bool CSemaphore::tryWait() { return sem_trywait(&m_semaphore) == 0; }

bool CSemaphore::wait(uint32_t timeoutMs) {
  if (timeoutMs == 0) {
    int ret;
    while ((ret = sem_wait(&m_semaphore)) != 0 && errno == EINTR) {
    }
    return ret == 0;
  }
  // Steps, not a deadline: the count is sampled at the start of each step.
  for (uint32_t tries = (timeoutMs + kStepMs - 1) / kStepMs; tries > 0; --tries) {
    if (tryWait()) return true;
    CThread::sleepMs(kStepMs);
  }
  return false;
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
