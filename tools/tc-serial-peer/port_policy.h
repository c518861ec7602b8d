#pragma once
// CPortPolicy: which device files a client of tc-serial-peer may have opened.
// Nothing is opened to find out, since opening some device files does
// something by itself (a watchdog arms).  A path is resolved first (symbolic
// links followed; ".." refused), and only a character device whose resolved
// path matches one of the glob patterns passes, never a console or the
// opener's own controlling terminal.

#include <cstdint>
#include <string>
#include <vector>

namespace Zentrova {
namespace Iot {
namespace Tools {

// Answer code of a refused path: EACCES, like the other errno-valued codes.
constexpr int32_t kPortRefused = 13;

class CPortPolicy {
 public:
  static constexpr const char* kDefaultPattern = "/dev/tty*";

  // Absolute glob patterns ('*' and '?' stop at '/'); none means the default.
  explicit CPortPolicy(const std::vector<std::string>& patterns = {});

  const std::vector<std::string>& patterns() const { return m_patterns; }

  // True with `resolved` set when `path` may be opened.  Otherwise false with
  // `code` kPortRefused, or the errno value when an allowed path is missing,
  // and `reason` saying why.
  bool check(const std::string& path, std::string& resolved, int32_t& code, std::string& reason) const;

 private:
  bool matches(const std::string& path) const;

  std::vector<std::string> m_patterns;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
