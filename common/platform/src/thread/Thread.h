#pragma once
// CThread: base of every long-running object.  A derived class implements
// threadProc() as a loop over isRunning(); stop() asks it to end and waits up
// to 3 s for its end before cancelling it.  A thread that sleeps on an event
// must be woken by its class before stop() (stop() only clears the flag).
// When stop() or cancel() returns, the thread has ended, its unwinding
// included, so the object may be deleted.

#include <cstdint>

namespace Zentrova {
namespace Iot {
namespace Platform {

class InternalThread;

// Monotonic millisecond count used for every interval in the service.
uint64_t tickMs();

class CThread {
 public:
  enum policyType : uint32_t { POLICY_FIFO = 0, POLICY_NORMAL = 1 };

  CThread(const char* name, policyType policy, uint32_t priority, uint32_t stackSize);
  virtual ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  bool start();
  void stop();
  void requestStop();
  bool cancel();
  uint32_t getThreadId() const;
  bool isStopped() const;
  bool isRunning() const;

  static void sleepMs(uint32_t ms);
  static uint32_t currentThreadId();

 protected:
  virtual void threadProc() = 0;

 private:
  friend class InternalThread;
  InternalThread* m_thread;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
