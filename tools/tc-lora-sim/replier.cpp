#include "tools/tc-lora-sim/replier.h"

#include <time.h>

#include <algorithm>

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

uint64_t now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

}  // namespace

void CReplier::serve(CUdpEndpoint& endpoint, std::string (*describe)(const std::string&),
                     std::vector<std::string>& lines) {
  std::string datagram;
  uint16_t from = 0;
  while (endpoint.receive(datagram, from)) {
    std::string line = describe(datagram) + (m_show ? " <= " + datagram : std::string());
    const bool queued = !m_once.empty();
    if (!queued && !m_result) {
      lines.push_back(line + " -> no answer");
      continue;
    }
    const std::string text = queued ? m_once.front() : "{\"result\":" + std::to_string(*m_result) + "}";
    if (queued) m_once.pop_front();
    line += " -> " + (queued ? text : "result " + std::to_string(*m_result));
    if (m_delay_ms > 0) {
      m_pending.push_back({now_ms() + static_cast<uint64_t>(m_delay_ms), from, text});
      lines.push_back(line + " in " + std::to_string(m_delay_ms) + " ms");
    } else {
      endpoint.send_to(text, from);
      lines.push_back(line);
    }
  }
}

void CReplier::send_due(CUdpEndpoint& endpoint, std::vector<std::string>& lines) {
  const uint64_t now = now_ms();
  // A shorter delay set later may fall due first: look at every one.
  for (auto it = m_pending.begin(); it != m_pending.end();) {
    if (it->due_ms > now) {
      ++it;
      continue;
    }
    endpoint.send_to(it->text, it->port);
    lines.push_back("late answer sent: " + it->text);
    it = m_pending.erase(it);
  }
}

int CReplier::next_due_ms() const {
  if (m_pending.empty()) return -1;
  uint64_t due = m_pending.front().due_ms;
  for (const auto& p : m_pending) due = std::min(due, p.due_ms);
  const uint64_t now = now_ms();
  return due > now ? static_cast<int>(due - now) : 0;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
