#pragma once
// InternalThread: the POSIX thread behind a CThread.  Attributes are built once
// in the constructor; stop is cooperative with a bounded wait for the thread's
// end, then forced.  Every thread is joined (by stop, cancel, the next start or
// the destructor), so a forced end returns only once the thread has finished
// unwinding.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common/platform/src/thread/Thread.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

class InternalThread {
 public:
  InternalThread(const char* name, CThread::policyType policy, uint32_t priority, uint32_t stackSize);
  ~InternalThread();
  InternalThread(const InternalThread&) = delete;
  InternalThread& operator=(const InternalThread&) = delete;

  bool start(CThread* owner);
  bool stop();
  bool requestStop();
  bool cancel();

  uint32_t threadId() const;
  bool alive() const;
  bool running() const;
  const std::string& name() const { return m_name; }
  uint32_t priority() const { return m_priority; }
  uint32_t stackSize() const { return m_stackSize; }

  // Native SCHED_FIFO priority for a requested 1..128 priority (0 counts as 1,
  // anything above 128 as 128).
  static uint32_t mapPriority(uint32_t requested, uint32_t min, uint32_t max);
  // 0 keeps the library default; otherwise whole 16 KiB steps, at least one.
  static uint32_t roundStackSize(uint32_t requested);

 private:
  struct State;
  struct Launch;
  struct Finish;
  static void* entry(void* arg);
  // Joins a thread that has finished but was not joined yet.
  void reap();

  std::string m_name;
  uint32_t m_creatorId;
  CThread::policyType m_policy;
  uint32_t m_priority;
  uint32_t m_stackSize;
  pthread_attr_t m_attr;
  // Shared with the running thread, so that a thread finishing on its own
  // never writes into an InternalThread that its stopper has already freed.
  std::shared_ptr<State> m_state;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
