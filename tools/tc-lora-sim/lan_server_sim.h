#pragma once
// CLanServerSim: the LoRa LAN server side of the simulator.  Listens on
// 127.0.0.1:18098, describes every downlink it receives in one line, answers
// it with {"result":N} (or not at all), and sends uplinks to the bridge.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

  // The code every downlink is answered with; none keeps silent.
  void set_answer(std::optional<int32_t> result) { m_answer = result; }
  // Handles every waiting downlink, one line each.
  void serve(std::vector<std::string>& lines) { m_endpoint.answer_all(m_answer, &describe, lines); }
  bool send_uplink(const CUplinkCommand& uplink) { return m_endpoint.send_to(uplink.datagram(), kBridgePort); }

  // "downlink devEUI=... fPort=... confirmed=... fcntd=... data=... (N bytes "...")"
  static std::string describe(const std::string& datagram);

 private:
  CUdpEndpoint m_endpoint;
  std::optional<int32_t> m_answer = 0;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
