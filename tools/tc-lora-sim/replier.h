#pragma once
// CReplier: what one simulated service answers, and when.  A standing answer
// ({"result":N} or silence), texts queued to answer the next requests once
// each, and a delay before any answer leaves: enough to try a client against
// a service that is slow, wrong or quiet.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tools/tc-lora-sim/udp_endpoint.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CReplier {
 public:
  // {"result":N} to every request; none keeps silent.
  void set_result(std::optional<int32_t> result) { m_result = result; }
  // TEXT, as it is, to the next request not yet given one.
  void queue_once(const std::string& text) { m_once.push_back(text); }
  void set_delay_ms(int ms) { m_delay_ms = ms; }
  // Shows each datagram as received after its description.
  void set_show(bool show) { m_show = show; }

  // Handles every waiting request on `endpoint`, one line each:
  // describe(datagram) and what it gets.
  void serve(CUdpEndpoint& endpoint, std::string (*describe)(const std::string&), std::vector<std::string>& lines);
  // Sends the delayed answers now due, one line each.
  void send_due(CUdpEndpoint& endpoint, std::vector<std::string>& lines);
  // Milliseconds until the next delayed answer is due; -1 with none waiting.
  int next_due_ms() const;

 private:
  struct Pending {
    uint64_t due_ms;
    uint16_t port;
    std::string text;
  };

  std::optional<int32_t> m_result = 0;
  std::deque<std::string> m_once;
  int m_delay_ms = 0;
  bool m_show = false;
  std::vector<Pending> m_pending;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
