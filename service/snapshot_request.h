#pragma once
// CSnapshotRequest: another thread asks a loop for a copy of its counters,
// and the loop takes it at the end of a pass, so that the counters stay the
// loop's own and the data path takes no lock.

#include <atomic>
#include <cstdint>

#include "common/platform/src/lock/semaphore.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

class CSnapshotRequest {
 public:
  // Asker: flags the request, wakes the loop with `wake`, and waits for the
  // answer up to `timeout_ms`.  False when none came in time.
  template <typename Wake>
  bool ask(Wake wake, uint32_t timeout_ms) {
    // A late answer to an earlier request that gave up must not count for this one.
    while (m_answered.tryWait()) {
    }
    m_wanted.store(true);
    wake();
    return m_answered.wait(timeout_ms);
  }
  // Loop: true once per request; answered() after the copy is in place.
  bool wanted() { return m_wanted.exchange(false); }
  void answered() { m_answered.post(); }

 private:
  std::atomic<bool> m_wanted{false};
  Platform::CSemaphore m_answered;
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
