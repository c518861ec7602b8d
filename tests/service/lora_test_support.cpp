#include "tests/service/lora_test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
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

int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
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

DeviceFile::DeviceFile(const std::string& path) {
  m_fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  termios tio{};
  tcgetattr(m_fd, &tio);
  cfmakeraw(&tio);
  tcsetattr(m_fd, TCSANOW, &tio);
}

DeviceFile::~DeviceFile() {
  if (m_fd >= 0) close(m_fd);
}

bool DeviceFile::write(const std::string& bytes) {
  size_t done = 0;
  for (const int64_t deadline = now_ms() + 5000; done < bytes.size() && now_ms() < deadline;) {
    const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) done += static_cast<size_t>(n);
    pollfd p{m_fd, POLLOUT, 0};
    if (n <= 0) poll(&p, 1, 50);
  }
  return done == bytes.size();
}

std::string DeviceFile::read(size_t n, int timeout_ms) {
  std::string got;
  char buffer[4096];
  for (const int64_t deadline = now_ms() + timeout_ms; got.size() < n && now_ms() < deadline;) {
    pollfd p{m_fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::max<int64_t>(0, deadline - now_ms()))) <= 0) continue;
    const ssize_t r = ::read(m_fd, buffer, sizeof buffer);
    if (r > 0) got.append(buffer, static_cast<size_t>(r));
    if (r <= 0) poll(nullptr, 0, 10);  // hung up: the bridge's end is gone
  }
  return got;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/tc-lora-XXXXXX";
  if (mkdtemp(pattern)) m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
}

bool path_exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace lora_test
