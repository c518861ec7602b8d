#pragma once
// CUdpEndpoint: one IPv4 UDP socket on the loopback, bound to a fixed port or
// left unbound for a one-shot sender.

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace Tools {

class CUdpEndpoint {
 public:
  CUdpEndpoint() = default;
  ~CUdpEndpoint();
  CUdpEndpoint(const CUdpEndpoint&) = delete;
  CUdpEndpoint& operator=(const CUdpEndpoint&) = delete;

  // Binds 127.0.0.1:port (any free port for 0).  False, with error() set, on failure.
  bool open(uint16_t port);
  int fd() const { return m_fd; }
  const std::string& error() const { return m_error; }

  bool send_to(const std::string& data, uint16_t port);
  // One waiting datagram (up to 64 KiB) and the port it came from; false when none.
  bool receive(std::string& data, uint16_t& from_port);

 private:
  int m_fd = -1;
  std::string m_error;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
