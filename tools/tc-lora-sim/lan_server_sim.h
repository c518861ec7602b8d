#pragma once
// CLanServerSim: the LoRa LAN server side of the simulator.  Listens on
// 127.0.0.1:18098, describes every downlink it receives in one line, answers
// it as its replier says, and sends uplinks (or any text) to the bridge.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tc-lora-sim/replier.h"
#include "tools/tc-lora-sim/udp_endpoint.h"
#include "tools/tc-lora-sim/uplink_command.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CLanServerSim {
 public:
  static constexpr uint16_t kPort = 18098;
  static constexpr uint16_t kBridgePort = 18099;

  bool open() { return m_endpoint.open(kPort); }
  int fd() const { return m_endpoint.fd(); }
  const std::string& error() const { return m_endpoint.error(); }

  // What every downlink is answered with, and when.
  CReplier& replier() { return m_replier; }
  // Handles every waiting downlink, one line each.
  void serve(std::vector<std::string>& lines) { m_replier.serve(m_endpoint, &describe, lines); }
  void send_due(std::vector<std::string>& lines) { m_replier.send_due(m_endpoint, lines); }
  bool send_to_bridge(const std::string& text) { return m_endpoint.send_to(text, kBridgePort); }

  // "downlink devEUI=... fPort=... confirmed=... fcntd=... data=... (N bytes "...")"
  static std::string describe(const std::string& datagram);

 private:
  CUdpEndpoint m_endpoint;
  CReplier m_replier;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
