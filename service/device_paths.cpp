#include "service/device_paths.h"

#include <filesystem>

#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Platform::CMutexGuard;

namespace {

// "/tmp//a" and "/tmp/./a" name the same link as "/tmp/a".
std::string normal(const std::string& path) { return std::filesystem::path(path).lexically_normal().string(); }

}  // namespace

CDevicePaths& CDevicePaths::shared() {
  // Never destroyed: a bridge thread may still release a path while the
  // process exits.
  static CDevicePaths* const paths = new CDevicePaths;
  return *paths;
}

CDevicePaths::CDevicePaths() : m_lock("device_paths") {}

bool CDevicePaths::claim(const std::string& path) {
  CMutexGuard guard(&m_lock);
  return m_held.insert(normal(path)).second;
}

void CDevicePaths::release(const std::string& path) {
  CMutexGuard guard(&m_lock);
  m_held.erase(normal(path));
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
