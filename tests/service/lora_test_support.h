#pragma once
// Real parts shared by the LoRa tests: a private bus with the development
// configuration manager, and a UDP socket on the loopback that plays a local
// LoRa service datagram by datagram (answers the simulator cannot give).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/device_file.h"

namespace lora_test {

// dbus-daemon, "tc-config serve" and the service's channel and agent.
class ConfigBus {
 public:
  ~ConfigBus();
  // Without the manager every read fails, as on a gateway whose manager is down.
  bool start(std::string& why, bool with_manager = true);
  Zentrova::Iot::Component::CConfigAgent* agent() { return m_agent.get(); }
  // Through the manager, which notifies the subscribers.
  bool set(const std::string& key, const std::string& value) { return m_agent->set_config(key, value, 3000, false) == 0; }

 private:
  tc_test::DBusDaemon m_daemon;
  std::unique_ptr<tc_test::ChildProcess> m_manager;
  std::unique_ptr<Zentrova::Iot::Component::CDBusChannel> m_channel;
  std::unique_ptr<Zentrova::Iot::Component::CConfigAgent> m_agent;
};

// A UDP socket bound to 127.0.0.1:port (without SO_REUSEPORT).
class UdpPeer {
 public:
  explicit UdpPeer(uint16_t port);
  ~UdpPeer();
  bool bound() const { return m_fd >= 0; }
  std::optional<std::string> receive(int timeout_ms);
  bool send(uint16_t port, const std::string& text);
  // To the sender of the last datagram received.
  bool reply(const std::string& text) { return send(m_last_sender, text); }

 private:
  int m_fd = -1;
  uint16_t m_last_sender = 0;
};

// Nobody holds 127.0.0.1:port.
inline bool udp_port_free(uint16_t port) { return UdpPeer(port).bound(); }

using tc_test::DeviceFile;
using tc_test::path_exists;
using tc_test::TempDir;

}  // namespace lora_test
