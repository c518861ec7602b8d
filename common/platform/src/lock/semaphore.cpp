#include "common/platform/src/lock/semaphore.h"

#include <time.h>

#include <cassert>
#include <cerrno>

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {

#if defined(__SANITIZE_THREAD__)
#define TC_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TC_THREAD_SANITIZER 1
#endif
#endif

int64_t now_ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

timespec to_timespec(int64_t ns) {
  timespec t{};
  t.tv_sec = static_cast<time_t>(ns / 1000000000);
  t.tv_nsec = static_cast<long>(ns % 1000000000);
  return t;
}

// Sleeps until a count is taken or the monotonic deadline has passed.
int wait_until(sem_t* semaphore, int64_t deadline) {
#ifdef TC_THREAD_SANITIZER
  // TSan knows sem_timedwait but not sem_clockwait: without it, it would see
  // no order between post and wait and hold signals back during the wait.
  // The caller re-checks the monotonic deadline after a time-out.
  const timespec wall = to_timespec(now_ns(CLOCK_REALTIME) + (deadline - now_ns(CLOCK_MONOTONIC)));
  return sem_timedwait(semaphore, &wall);
#else
  const timespec until = to_timespec(deadline);
  return sem_clockwait(semaphore, CLOCK_MONOTONIC, &until);
#endif
}

}  // namespace

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
  const int64_t deadline = now_ns(CLOCK_MONOTONIC) + static_cast<int64_t>(timeoutMs) * 1000000;
  for (;;) {
    if (wait_until(&m_semaphore, deadline) == 0) return true;
    if (errno != EINTR && errno != ETIMEDOUT) return false;
    if (now_ns(CLOCK_MONOTONIC) >= deadline) return false;
  }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
