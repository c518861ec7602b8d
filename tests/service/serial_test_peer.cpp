#include "tests/service/serial_test_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace tc_test {

using namespace Zentrova::Iot::TransparentChannel;

namespace {

int remaining_ms(std::chrono::steady_clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool wait_readable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

}  // namespace

Bytes make_frame(uint8_t type, const std::string& payload) {
  Bytes f(kFrameHeaderSize + payload.size());
  write_frame_header(f.data(), type, static_cast<uint16_t>(f.size()));
  memcpy(f.data() + kFrameHeaderSize, payload.data(), payload.size());
  return f;
}

PeerLink::~PeerLink() { close(m_fd); }

bool PeerLink::send_bytes(const Bytes& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool PeerLink::send_response(int32_t code, const std::string& message, size_t len) {
  Bytes f(len, 0);
  build_connect_response(code, "", f.data());
  write_frame_header(f.data(), kFrameConnectResponse, static_cast<uint16_t>(len));
  memcpy(f.data() + kResponseMessageOffset, message.data(), std::min(message.size(), len - kResponseMessageOffset));
  return send_bytes(f);
}

bool PeerLink::fill(size_t n, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  uint8_t chunk[4096];
  while (m_buf.size() < n) {
    if (!wait_readable(m_fd, remaining_ms(end))) return false;
    const ssize_t got = recv(m_fd, chunk, sizeof chunk, 0);
    if (got <= 0) return false;
    m_buf.insert(m_buf.end(), chunk, chunk + got);
  }
  return true;
}

Bytes PeerLink::read_bytes(size_t n, int timeout_ms) {
  fill(n, timeout_ms);
  const size_t got = std::min(n, m_buf.size());
  Bytes out(m_buf.begin(), m_buf.begin() + got);
  m_buf.erase(m_buf.begin(), m_buf.begin() + got);
  return out;
}

bool PeerLink::read_frame(Bytes& out, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  if (!fill(kFrameHeaderSize, timeout_ms)) return false;
  const FrameHeader header = read_frame_header(m_buf.data());
  if (header.len < kFrameHeaderSize || !fill(header.len, remaining_ms(end))) return false;
  out.assign(m_buf.begin(), m_buf.begin() + header.len);
  m_buf.erase(m_buf.begin(), m_buf.begin() + header.len);
  return true;
}

bool PeerLink::read_request(ConnectRequest& out, int timeout_ms) {
  Bytes f;
  return read_frame(f, timeout_ms) && read_connect_request(f.data(), f.size(), out);
}

std::string PeerLink::read_data(size_t n, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string data;
  Bytes f;
  while (data.size() < n && read_frame(f, remaining_ms(end))) {
    if (f[1] == kFrameData) data.append(f.begin() + kFrameHeaderSize, f.end());
  }
  return data;
}

bool PeerLink::wait_closed(int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  uint8_t chunk[4096];
  while (wait_readable(m_fd, remaining_ms(end))) {
    if (recv(m_fd, chunk, sizeof chunk, 0) <= 0) return true;
  }
  return false;
}

TestPeer::TestPeer(const std::string& ip, uint16_t port) {
  m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_aton(ip.c_str(), &addr.sin_addr);
  if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(m_fd, 8) < 0) {
    close(m_fd);
    m_fd = -1;
  }
}

TestPeer::~TestPeer() {
  if (m_fd >= 0) close(m_fd);
}

std::unique_ptr<PeerLink> TestPeer::accept(int timeout_ms) {
  if (m_fd < 0 || !wait_readable(m_fd, timeout_ms)) return nullptr;
  const int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return nullptr;
  // Split sends must reach the service as separate segments.
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return std::make_unique<PeerLink>(fd);
}

std::unique_ptr<PeerLink> TestPeer::establish(ConnectRequest* request, int timeout_ms) {
  std::unique_ptr<PeerLink> link = accept(timeout_ms);
  ConnectRequest ignored{};
  if (!link || !link->read_request(request ? *request : ignored) || !link->send_response(0, "ok")) return nullptr;
  return link;
}

std::unique_ptr<PeerLink> connect_to(const std::string& ip, uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_aton(ip.c_str(), &addr.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    close(fd);
    return nullptr;
  }
  return std::make_unique<PeerLink>(fd);
}

}  // namespace tc_test
