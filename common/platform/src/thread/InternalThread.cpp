#include "common/platform/src/thread/InternalThread.h"

#include <cxxabi.h>
#include <sched.h>

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>

#include "common/log/log.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kStackStep = 16384;
constexpr uint32_t kStopWaitMs = 3000;
}  // namespace

// Bookkeeping of the current run.  `generation` tells a thread that stopped
// itself (and so may have been replaced by a later start) to leave the
// fields alone.
struct InternalThread::State {
  std::mutex lock;
  // Notified when a thread has finished, by returning or by being cancelled.
  std::condition_variable ended;
  uint64_t generation = 0;
  // A thread not yet joined: whoever takes it out joins it, outside the lock.
  pthread_t handle = 0;
  bool joinable = false;
  CThread* owner = nullptr;
  std::atomic<uint32_t> threadId{0};
  std::atomic<bool> alive{false};
  std::atomic<bool> run{false};
};

struct InternalThread::Launch {
  std::shared_ptr<State> state;
  uint64_t generation;
  CThread* owner;
  std::string name;
};

// Runs when the thread body is left in any way, the unwinding of a
// cancellation included; from here on the thread touches nothing of its owner.
struct InternalThread::Finish {
  ~Finish() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    State& s = *launch.state;
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.generation == launch.generation && s.alive.load()) {
      s.run.store(false);
      s.owner = nullptr;
      s.alive.store(false);
    }
    s.ended.notify_all();
  }
  const Launch& launch;
};

uint32_t InternalThread::mapPriority(uint32_t requested, uint32_t min, uint32_t max) {
  uint32_t p = requested > 128 ? 128 : requested;
  if (p == 0) p = 1;
  return max - ((max - min) * (128 - p)) / 127;
}

uint32_t InternalThread::roundStackSize(uint32_t requested) {
  if (requested == 0) return 0;
  if (requested <= kStackStep) return kStackStep;
  return (requested + kStackStep - 1) / kStackStep * kStackStep;
}

InternalThread::InternalThread(const char* name, CThread::policyType policy, uint32_t priority,
                               uint32_t stackSize)
    : m_name(name ? name : ""),
      m_creatorId(CThread::currentThreadId()),
      m_policy(policy),
      m_priority(priority),
      m_stackSize(stackSize),
      m_state(std::make_shared<State>()) {
  int ret = pthread_attr_init(&m_attr);
  assert(0 == ret);
  if (m_policy == CThread::POLICY_FIFO) {
    ret = pthread_attr_setinheritsched(&m_attr, PTHREAD_EXPLICIT_SCHED);
    assert(0 == ret);
    ret = pthread_attr_setschedpolicy(&m_attr, SCHED_FIFO);
    assert(0 == ret);
    m_priority = mapPriority(m_priority, static_cast<uint32_t>(sched_get_priority_min(SCHED_FIFO)),
                             static_cast<uint32_t>(sched_get_priority_max(SCHED_FIFO)));
    sched_param param{};
    param.sched_priority = static_cast<int>(m_priority);
    ret = pthread_attr_setschedparam(&m_attr, &param);
    assert(0 == ret);
  } else {
    ret = pthread_attr_setschedpolicy(&m_attr, SCHED_OTHER);
    assert(0 == ret);
  }
  m_stackSize = roundStackSize(m_stackSize);
  if (m_stackSize != 0) pthread_attr_setstacksize(&m_attr, m_stackSize);
  (void)ret;
}

InternalThread::~InternalThread() {
  cancel();
  reap();
  pthread_attr_destroy(&m_attr);
}

uint32_t InternalThread::threadId() const { return m_state->threadId.load(); }
bool InternalThread::alive() const { return m_state->alive.load(); }
bool InternalThread::running() const { return m_state->run.load(); }

bool InternalThread::start(CThread* owner) {
  reap();
  State& s = *m_state;
  std::lock_guard<std::mutex> guard(s.lock);
  if (s.alive.load() || owner == nullptr) return false;
  s.alive.store(true);
  s.run.store(true);
  s.owner = owner;
  auto* launch = new Launch{m_state, ++s.generation, owner, m_name};
  pthread_t handle;
  int ret = pthread_create(&handle, &m_attr, &InternalThread::entry, launch);
  assert(0 == ret);
  (void)ret;
  s.handle = handle;
  s.joinable = true;
  return true;
}

// The forced-unwind catch binds a reference to an object UBSan sees as null;
// that is how glibc implements cancellation, not a fault of ours.
__attribute__((no_sanitize("undefined"))) void* InternalThread::entry(void* arg) {
  std::unique_ptr<Launch> launch(static_cast<Launch*>(arg));
  launch->state->threadId.store(CThread::currentThreadId());
  Finish finish{*launch};
  try {
    launch->owner->threadProc();
  } catch (abi::__forced_unwind&) {
    throw;  // cancellation must unwind through here
  } catch (const std::exception& e) {
    TC_LOG(3, "threadProc, %s ended by an exception: %s", launch->name.c_str(), e.what());
  } catch (...) {
    TC_LOG(3, "threadProc, %s ended by an unknown exception", launch->name.c_str());
  }
  return nullptr;
}

bool InternalThread::requestStop() {
  if (!m_state->alive.load()) return false;
  m_state->run.store(false);
  return true;
}

bool InternalThread::stop() {
  State& s = *m_state;
  if (!s.alive.load()) {
    reap();
    return false;
  }
  s.run.store(false);
  if (CThread::currentThreadId() != s.threadId.load()) {
    std::unique_lock<std::mutex> lock(s.lock);
    const uint64_t generation = s.generation;
    const bool ended = s.ended.wait_for(lock, std::chrono::milliseconds(kStopWaitMs), [&] {
      return !s.alive.load() || s.generation != generation;
    });
    lock.unlock();
    if (ended) {
      reap();
      return true;
    }
    TC_LOG(2, "stop, %s did not end within %u ms, cancel it", m_name.c_str(), kStopWaitMs);
  }
  cancel();
  return true;
}

bool InternalThread::cancel() {
  State& s = *m_state;
  pthread_t handle;
  {
    std::unique_lock<std::mutex> lock(s.lock);
    if (!s.alive.load()) return false;
    s.run.store(false);
    if (CThread::currentThreadId() == s.threadId.load()) {
      // From the thread itself: it goes on to its end, and nobody joins it.
      if (s.joinable) pthread_detach(s.handle);
      s.joinable = false;
      s.threadId.store(0);
      s.handle = 0;
      s.owner = nullptr;
      s.alive.store(false);
      return true;
    }
    if (!s.joinable) {
      // Another caller is cancelling it: wait for that to end.
      s.ended.wait(lock, [&] { return !s.alive.load(); });
      return true;
    }
    handle = s.handle;
    s.joinable = false;
  }
  pthread_cancel(handle);
  // Once joined, nothing of the thread touches its owner any more.
  pthread_join(handle, nullptr);
  std::lock_guard<std::mutex> guard(s.lock);
  s.threadId.store(0);
  s.handle = 0;
  s.owner = nullptr;
  s.alive.store(false);
  s.ended.notify_all();
  return true;
}

void InternalThread::reap() {
  State& s = *m_state;
  pthread_t handle;
  {
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.alive.load() || !s.joinable) return;
    handle = s.handle;
    s.handle = 0;
    s.joinable = false;
  }
  // It has finished its body; this only waits for it to leave.
  pthread_join(handle, nullptr);
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
