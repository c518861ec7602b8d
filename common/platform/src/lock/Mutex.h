#pragma once
// CMutex: a named, non-recursive POSIX mutex.  Lock it through CMutexGuard.

#include <pthread.h>

#include <string>

namespace Zentrova {
namespace Iot {
namespace Platform {

class CMutex {
 public:
  explicit CMutex(const char* name = nullptr);
  ~CMutex();
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;

  void lock();
  int unlock();
  bool tryLock();
  const std::string& name() const { return m_name; }

 private:
  pthread_mutex_t m_mutex;
  std::string m_name;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
