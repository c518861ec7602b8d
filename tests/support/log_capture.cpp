#include "tests/support/log_capture.h"

#include <chrono>

namespace tc_test {

LogCaptureScope::LogCaptureScope() : m_capture{&LogCaptureScope::hook, this} { log_set_capture(&m_capture); }

LogCaptureScope::~LogCaptureScope() { log_set_capture(nullptr); }

void LogCaptureScope::hook(void* context, const LogRecord& record) {
  auto* self = static_cast<LogCaptureScope*>(context);
  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_lines.push_back({record.level, record.function ? record.function : "", record.text});
  }
  self->m_changed.notify_all();
}

std::vector<CapturedLine> LogCaptureScope::lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

void LogCaptureScope::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

size_t LogCaptureScope::matching(const std::string& text, bool prefix) const {
  size_t n = 0;
  for (const auto& l : m_lines) n += prefix ? l.text.compare(0, text.size(), text) == 0 : l.text == text;
  return n;
}

size_t LogCaptureScope::count(const std::string& text, bool prefix) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return matching(text, prefix);
}

bool LogCaptureScope::wait(const std::string& text, bool prefix, int timeout_ms, size_t n) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return matching(text, prefix) >= n; });
}

std::string LogCaptureScope::dump() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string out;
  for (const auto& l : m_lines) out += std::to_string(l.level) + " " + l.function + ": " + l.text + "\n";
  return out;
}

}  // namespace tc_test
