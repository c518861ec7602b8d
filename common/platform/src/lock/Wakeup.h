#pragma once
// CWakeup: a descriptor that other threads make readable to wake a loop that
// sleeps in poll or epoll on its own descriptors (an eventfd).

namespace Zentrova {
namespace Iot {
namespace Platform {

class CWakeup {
 public:
  CWakeup();
  ~CWakeup();
  CWakeup(const CWakeup&) = delete;
  CWakeup& operator=(const CWakeup&) = delete;

  // -1 when the system had no descriptor to give.
  int fd() const { return m_fd; }
  // Any number of wakes before the next drain count as one.  Async-signal-safe.
  void wake();
  // Makes the descriptor unreadable again; the sleeper calls it when woken.
  void drain();

 private:
  int m_fd;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
