#include "common/platform/src/lock/Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace Zentrova {
namespace Iot {
namespace Platform {

CWakeup::CWakeup() : m_fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

CWakeup::~CWakeup() {
  if (m_fd >= 0) close(m_fd);
}

void CWakeup::wake() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then it is readable anyway.
  ssize_t n = write(m_fd, &one, sizeof one);
  (void)n;
}

void CWakeup::drain() {
  uint64_t count;
  ssize_t n = read(m_fd, &count, sizeof count);
  (void)n;
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
