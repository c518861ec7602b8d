#include "tools/tc-lora-sim/udp_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

}  // namespace

CUdpEndpoint::~CUdpEndpoint() {
  if (m_fd >= 0) close(m_fd);
}

bool CUdpEndpoint::open(uint16_t port) {
  m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (m_fd < 0) {
    m_error = std::string("socket: ") + strerror(errno);
    return false;
  }
  // No SO_REUSEPORT: a second simulator on the same port must fail loudly.
  const sockaddr_in addr = loopback(port);
  if (bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    m_error = "bind 127.0.0.1:" + std::to_string(port) + ": " + strerror(errno);
    close(m_fd);
    m_fd = -1;
    return false;
  }
  return true;
}

bool CUdpEndpoint::send_to(const std::string& data, uint16_t port) {
  const sockaddr_in addr = loopback(port);
  const ssize_t n = sendto(m_fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  if (n == static_cast<ssize_t>(data.size())) return true;
  m_error = std::string("sendto: ") + strerror(errno);
  return false;
}

bool CUdpEndpoint::receive(std::string& data, uint16_t& from_port) {
  std::vector<char> buffer(65536);
  sockaddr_in from{};
  socklen_t from_len = sizeof from;
  const ssize_t n = recvfrom(m_fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &from_len);
  if (n < 0) return false;
  data.assign(buffer.data(), static_cast<size_t>(n));
  from_port = ntohs(from.sin_port);
  return true;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
