#pragma once
// Collects the lines the code under test logs, for as long as it lives.

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "common/log/log.h"

namespace tc_test {

struct CapturedLine {
  int level;
  std::string function;
  std::string text;
};

class LogCaptureScope {
 public:
  LogCaptureScope();
  ~LogCaptureScope();
  LogCaptureScope(const LogCaptureScope&) = delete;
  LogCaptureScope& operator=(const LogCaptureScope&) = delete;

  std::vector<CapturedLine> lines() const;
  void clear();
  // Lines of exactly this text.
  size_t count(const std::string& text) const { return count(text, false); }
  bool contains(const std::string& text) const { return count(text) > 0; }
  // Lines whose text begins with `prefix`.
  size_t count_prefix(const std::string& prefix) const { return count(prefix, true); }
  // Waits until at least `n` such lines were logged.
  bool wait_for(const std::string& text, int timeout_ms, size_t n = 1) const { return wait(text, false, timeout_ms, n); }
  bool wait_for_prefix(const std::string& prefix, int timeout_ms, size_t n = 1) const {
    return wait(prefix, true, timeout_ms, n);
  }
  // The captured lines as text, for failure messages.
  std::string dump() const;

 private:
  static void hook(void* context, const LogRecord& record);
  size_t count(const std::string& text, bool prefix) const;
  bool wait(const std::string& text, bool prefix, int timeout_ms, size_t n) const;
  size_t matching(const std::string& text, bool prefix) const;  // with m_mutex held

  LogCapture m_capture;
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<CapturedLine> m_lines;
};

}  // namespace tc_test
