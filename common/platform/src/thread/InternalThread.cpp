#include "common/platform/src/thread/InternalThread.h"

#include <cxxabi.h>
#include <sched.h>

#include <cassert>
#include <exception>

#include "common/log/log.h"
#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kStackStep = 16384;
constexpr uint32_t kStopWaitMs = 3000;
constexpr uint32_t kStopStepMs = 30;
}  // namespace

// Bookkeeping of the current run.  `generation` tells a thread that was
// cancelled (and so replaced by a later start) to leave the fields alone.
struct InternalThread::State {
  CMutex lock;
  uint64_t generation = 0;
  pthread_t handle = 0;
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
  pthread_attr_destroy(&m_attr);
}

uint32_t InternalThread::threadId() const { return m_state->threadId.load(); }
bool InternalThread::alive() const { return m_state->alive.load(); }
bool InternalThread::running() const { return m_state->run.load(); }

bool InternalThread::start(CThread* owner) {
  State& s = *m_state;
  CMutexGuard guard(&s.lock);
  if (s.alive.load() || owner == nullptr) return false;
  s.alive.store(true);
  s.run.store(true);
  s.owner = owner;
  auto* launch = new Launch{m_state, ++s.generation, owner, m_name};
  pthread_t handle;
  int ret = pthread_create(&handle, &m_attr, &InternalThread::entry, launch);
  assert(0 == ret);
  s.handle = handle;
  ret = pthread_detach(handle);
  assert(0 == ret);
  (void)ret;
  return true;
}

// The forced-unwind catch binds a reference to an object UBSan sees as null;
// that is how glibc implements cancellation, not a fault of ours.
__attribute__((no_sanitize("undefined"))) void* InternalThread::entry(void* arg) {
  std::unique_ptr<Launch> launch(static_cast<Launch*>(arg));
  State& s = *launch->state;
  s.threadId.store(CThread::currentThreadId());
  try {
    launch->owner->threadProc();
  } catch (abi::__forced_unwind&) {
    throw;  // cancellation must unwind through here
  } catch (const std::exception& e) {
    TC_LOG(3, "threadProc, %s ended by an exception: %s", launch->name.c_str(), e.what());
  } catch (...) {
    TC_LOG(3, "threadProc, %s ended by an unknown exception", launch->name.c_str());
  }
  // A cancel that lost the race must not hit the bookkeeping below.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  CMutexGuard guard(&s.lock);
  if (s.generation == launch->generation && s.alive.load()) {
    s.handle = 0;
    s.run.store(false);
    s.owner = nullptr;
    s.alive.store(false);
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
  if (!s.alive.load()) return false;
  s.run.store(false);
  if (CThread::currentThreadId() != s.threadId.load()) {
    for (uint32_t waited = 0; waited < kStopWaitMs && s.alive.load(); waited += kStopStepMs) {
      CThread::sleepMs(kStopStepMs);
    }
  }
  if (!s.alive.load()) return true;
  cancel();
  return true;
}

bool InternalThread::cancel() {
  State& s = *m_state;
  CMutexGuard guard(&s.lock);
  if (!s.alive.load()) return false;
  s.run.store(false);
  if (CThread::currentThreadId() != s.threadId.load() && s.handle != 0) pthread_cancel(s.handle);
  s.threadId.store(0);
  s.handle = 0;
  s.owner = nullptr;
  s.alive.store(false);
  return true;
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
