#include "tools/tc-serial-peer/port_policy.h"

#include <fnmatch.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

bool has_parent_step(const std::string& path) {
  for (size_t start = 0; start <= path.size();) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    if (path.compare(start, slash - start, "..") == 0) return true;
    start = slash + 1;
  }
  return false;
}

// Virtual consoles (4:0-63), and the controlling terminal, the system console
// and the pseudo-terminal multiplexer (5:0-2): people's sessions, not ports.
bool is_console(dev_t device) {
  const unsigned int major_number = major(device);
  const unsigned int minor_number = minor(device);
  return (major_number == 4 && minor_number < 64) || (major_number == 5 && minor_number <= 2);
}

bool refuse(int32_t& code, std::string& reason, int32_t value, const std::string& text) {
  code = value;
  reason = text;
  return false;
}

}  // namespace

CPortPolicy::CPortPolicy(const std::vector<std::string>& patterns) : m_patterns(patterns) {
  if (m_patterns.empty()) m_patterns.push_back(kDefaultPattern);
}

bool CPortPolicy::matches(const std::string& path) const {
  for (const std::string& pattern : m_patterns) {
    if (fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0) return true;
  }
  return false;
}

bool CPortPolicy::check(const std::string& path, std::string& resolved, int32_t& code, std::string& reason) const {
  const std::string not_allowed = path + ": not an allowed serial port";
  if (has_parent_step(path)) return refuse(code, reason, kPortRefused, not_allowed);

  char real[PATH_MAX];
  if (!realpath(path.c_str(), real)) {
    // Only a path that would be allowed says whether it exists.
    const int error = errno;
    if (!matches(path)) return refuse(code, reason, kPortRefused, not_allowed);
    return refuse(code, reason, error, path + ": " + strerror(error));
  }
  if (!matches(real)) {
    return refuse(code, reason, kPortRefused, path == real ? not_allowed : not_allowed + " (" + real + ")");
  }
  struct stat st {};
  if (stat(real, &st) != 0) {
    const int error = errno;
    return refuse(code, reason, error, path + ": " + strerror(error));
  }
  if (!S_ISCHR(st.st_mode)) return refuse(code, reason, kPortRefused, path + ": not a character device");
  if (is_console(st.st_rdev)) return refuse(code, reason, kPortRefused, path + ": a console, not a serial port");
  resolved = real;
  return true;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
