#pragma once
// CDevicePaths: the local device paths that live devices of either bridge
// hold.  A path is held by one device at a time, so that a second item naming
// it neither replaces the first one's link nor, when it goes, unlinks it.
// Both bridges run on their own threads; every operation is locked.

#include <set>
#include <string>

#include "common/platform/src/lock/Mutex.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

class CDevicePaths {
 public:
  // The one registry of the process, shared by both bridges.
  static CDevicePaths& shared();

  CDevicePaths();
  CDevicePaths(const CDevicePaths&) = delete;
  CDevicePaths& operator=(const CDevicePaths&) = delete;

  // True when `path` was free and is now held; false when a live device holds it.
  bool claim(const std::string& path);
  // The device holding `path` is gone.
  void release(const std::string& path);

 private:
  Platform::CMutex m_lock;
  std::set<std::string> m_held;
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
