#include "common/platform/src/thread/Thread.h"

#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>

#include "common/platform/src/thread/InternalThread.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
// Last clock-tick value seen, extended past the 32-bit wrap of times().
std::atomic<uint64_t> g_lastTicks{0x7FFFFFFF};
}  // namespace

uint64_t tickMs() {
  static const uint64_t msPerTick = 1000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  uint64_t last = g_lastTicks.load();
  uint64_t t = static_cast<uint32_t>(times(nullptr));
  if (t == 0xFFFFFFFFu) t = last;
  if (static_cast<uint32_t>(t) != static_cast<uint32_t>(last)) {
    while (t < last) t += 1ULL << 32;
    // Only ever move forward, whichever caller gets here first.
    while (t > last && !g_lastTicks.compare_exchange_weak(last, t)) {
    }
  }
  return g_lastTicks.load() * msPerTick;
}

CThread::CThread(const char* name, policyType policy, uint32_t priority, uint32_t stackSize)
    : m_thread(new InternalThread(name, policy, priority, stackSize)) {}

CThread::~CThread() { delete m_thread; }

bool CThread::start() { return m_thread->start(this); }

void CThread::stop() { m_thread->stop(); }

void CThread::requestStop() { m_thread->requestStop(); }

bool CThread::cancel() { return m_thread->cancel(); }

uint32_t CThread::getThreadId() const { return m_thread->threadId(); }

bool CThread::isStopped() const { return !m_thread->alive(); }

bool CThread::isRunning() const { return m_thread->running(); }

uint32_t CThread::currentThreadId() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

void CThread::sleepMs(uint32_t ms) {
  if (ms == 0) {
    sched_yield();
    return;
  }
  const uint64_t start = tickMs();
  uint64_t elapsed = 0;
  while (elapsed < ms) {
    if (poll(nullptr, 0, static_cast<int>(ms - elapsed)) == 0) return;
    elapsed = tickMs() - start;
  }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
