#pragma once
// CNodeServiceSim: the LoRa node service side of the simulator.  Listens on
// 127.0.0.1:16058, describes every request in one line and answers it as its
// replier says.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tc-lora-sim/replier.h"
#include "tools/tc-lora-sim/udp_endpoint.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CNodeServiceSim {
 public:
  static constexpr uint16_t kPort = 16058;

  bool open() { return m_endpoint.open(kPort); }
  int fd() const { return m_endpoint.fd(); }
  const std::string& error() const { return m_endpoint.error(); }

  // What every request is answered with, and when.
  CReplier& replier() { return m_replier; }
  // Handles every waiting request, one line each.
  void serve(std::vector<std::string>& lines) { m_replier.serve(m_endpoint, &describe, lines); }
  void send_due(std::vector<std::string>& lines) { m_replier.send_due(m_endpoint, lines); }

  // "node set_rf RX2Frequency=... TxPower=... SF=..." or
  // "node sync count=N devEui=A,B,..." (keys are left out).
  static std::string describe(const std::string& request);

 private:
  CUdpEndpoint m_endpoint;
  CReplier m_replier;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
