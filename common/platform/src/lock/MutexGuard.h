#pragma once
// CMutexGuard: holds a CMutex for the life of a block.

#include "common/platform/src/lock/Mutex.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

class CMutexGuard {
 public:
  explicit CMutexGuard(CMutex* mutex) : m_mutex(mutex) { m_mutex->lock(); }
  ~CMutexGuard() { m_mutex->unlock(); }
  CMutexGuard(const CMutexGuard&) = delete;
  CMutexGuard& operator=(const CMutexGuard&) = delete;

 private:
  CMutex* m_mutex;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
