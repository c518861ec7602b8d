#include "tests/service/lora_test_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace lora_test {

using namespace Zentrova::Iot::Component;

namespace {

const char* const kSelf = "iot.gateway.transparentchannel";

void ignore_error(int32_t) {}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

}  // namespace

ConfigBus::~ConfigBus() {
  m_agent.reset();
  if (m_channel) m_channel->stop();
}

bool ConfigBus::start(std::string& why, bool with_manager) {
  if (!m_daemon.start()) {
    why = "dbus-daemon: " + m_daemon.error();
    return false;
  }
  if (with_manager) {
    m_manager = std::make_unique<tc_test::ChildProcess>(std::vector<std::string>{
        TC_BINARY_DIR "/tools/tc-config/tc-config", "serve", "--bus", m_daemon.address()});
    if (!m_manager->wait_for_line("ready on", 10000)) {
      why = "tc-config serve: " + m_manager->output();
      return false;
    }
  }
  m_channel = std::make_unique<CDBusChannel>(m_daemon.address(), kSelf, "/iot/gateway/transparentchannel",
                                             std::vector<std::string>{});
  m_channel->set_error_callback(CDBusErrorCallback(&ignore_error));
  m_channel->register_signal("NameAcquired", CDBusSignalHandler());
  m_agent = std::make_unique<CConfigAgent>(m_channel.get(), kSelf);
  why = "the channel did not connect";
  return m_channel->start() == 1;
}

UdpPeer::UdpPeer(uint16_t port) {
  m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in addr = loopback(port);
  if (m_fd >= 0 && bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    close(m_fd);
    m_fd = -1;
  }
}

UdpPeer::~UdpPeer() {
  if (m_fd >= 0) close(m_fd);
}

std::optional<std::string> UdpPeer::receive(int timeout_ms) {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return std::nullopt;
  std::vector<char> buffer(65536);
  sockaddr_in from{};
  socklen_t len = sizeof from;
  const ssize_t n = recvfrom(m_fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &len);
  if (n < 0) return std::nullopt;
  m_last_sender = ntohs(from.sin_port);
  return std::string(buffer.data(), static_cast<size_t>(n));
}

bool UdpPeer::send(uint16_t port, const std::string& text) {
  const sockaddr_in addr = loopback(port);
  return sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) ==
         static_cast<ssize_t>(text.size());
}

}  // namespace lora_test
