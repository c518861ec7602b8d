#include "bench/peer_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "service/serial_frame.h"

namespace tc = Zentrova::Iot::TransparentChannel;

namespace tc_bench {

namespace {

bool write_all(int fd, const uint8_t* p, size_t len) {
  while (len > 0) {
    const ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

PeerLink::PeerLink(int fd, bool framed) : m_fd(fd), m_framed(framed), m_buf(256 * 1024) {
  // The peer answers at once; its own batching must not show up as bridge latency.
  const int one = 1;
  setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

PeerLink::~PeerLink() { close(m_fd); }

int PeerLink::read_some(int timeout_ms) {
  if (m_held == m_buf.size()) return -1;
  pollfd p{m_fd, POLLIN, 0};
  const int r = poll(&p, 1, timeout_ms);
  if (r == 0) return 0;
  if (r < 0) return errno == EINTR ? 0 : -1;
  const ssize_t n = ::recv(m_fd, m_buf.data() + m_held, m_buf.size() - m_held, 0);
  if (n <= 0) {
    m_alive.store(false);
    return -1;
  }
  m_held += static_cast<size_t>(n);
  return static_cast<int>(n);
}

bool PeerLink::handshake(int timeout_ms) {
  if (!m_framed) return true;
  const double deadline_ms = timeout_ms;
  int waited = 0;
  tc::FrameHeader header{};
  while (tc::examine_frame(m_buf.data(), m_held, header) != tc::FrameCheck::complete) {
    if (waited > deadline_ms) return false;
    const int r = read_some(100);
    if (r < 0) return false;
    waited += 100;
  }
  tc::ConnectRequest request{};
  if (header.type != tc::kFrameConnectRequest || !tc::read_connect_request(m_buf.data(), header.len, request)) {
    return false;
  }
  m_device = request.device;
  memmove(m_buf.data(), m_buf.data() + header.len, m_held - header.len);
  m_held -= header.len;
  uint8_t response[tc::kConnectResponseMinSize];
  const size_t len = tc::build_connect_response(0, "bench peer ready", response);
  std::lock_guard<std::mutex> guard(m_send_lock);
  return write_all(m_fd, response, len);
}

bool PeerLink::send(const uint8_t* data, size_t len) {
  if (!m_framed) {
    std::lock_guard<std::mutex> guard(m_send_lock);
    if (!write_all(m_fd, data, len)) m_alive.store(false);
    return m_alive.load();
  }
  // Whole frames go out in one send each batch, as a peer with a real port would.
  m_out.resize(len + (len / tc::kFrameMaxPayload + 1) * tc::kFrameHeaderSize);
  size_t out = 0;
  while (len > 0) {
    const size_t n = len < tc::kFrameMaxPayload ? len : tc::kFrameMaxPayload;
    tc::write_frame_header(&m_out[out], tc::kFrameData, static_cast<uint16_t>(n + tc::kFrameHeaderSize));
    memcpy(&m_out[out + tc::kFrameHeaderSize], data, n);
    out += n + tc::kFrameHeaderSize;
    data += n;
    len -= n;
  }
  std::lock_guard<std::mutex> guard(m_send_lock);
  if (!write_all(m_fd, m_out.data(), out)) m_alive.store(false);
  return m_alive.load();
}

bool PeerLink::send_keepalive() {
  if (!m_framed) return true;
  uint8_t frame[tc::kFrameHeaderSize];
  tc::write_frame_header(frame, tc::kFrameKeepalive, static_cast<uint16_t>(tc::kFrameHeaderSize));
  std::lock_guard<std::mutex> guard(m_send_lock);
  if (!write_all(m_fd, frame, sizeof frame)) m_alive.store(false);
  return m_alive.load();
}

int PeerLink::receive(uint8_t* out, size_t cap, int timeout_ms) {
  if (!m_framed) {
    if (m_held == 0) {
      const int r = read_some(timeout_ms);
      if (r <= 0) return r;
    }
    const size_t n = m_held < cap ? m_held : cap;
    memcpy(out, m_buf.data(), n);
    memmove(m_buf.data(), m_buf.data() + n, m_held - n);
    m_held -= n;
    return static_cast<int>(n);
  }
  size_t got = 0;
  size_t off = 0;
  for (;;) {
    tc::FrameHeader header{};
    const tc::FrameCheck check = tc::examine_frame(m_buf.data() + off, m_held - off, header);
    if (check == tc::FrameCheck::bad_header) {
      m_alive.store(false);
      return -1;
    }
    if (check == tc::FrameCheck::complete) {
      const size_t payload = header.len - tc::kFrameHeaderSize;
      if (header.type != tc::kFrameData) {
        off += header.len;
        continue;
      }
      if (got + payload > cap) break;
      memcpy(out + got, m_buf.data() + off + tc::kFrameHeaderSize, payload);
      got += payload;
      off += header.len;
      continue;
    }
    if (got > 0) break;
    memmove(m_buf.data(), m_buf.data() + off, m_held - off);
    m_held -= off;
    off = 0;
    const int r = read_some(timeout_ms);
    if (r <= 0) return r;
  }
  memmove(m_buf.data(), m_buf.data() + off, m_held - off);
  m_held -= off;
  return static_cast<int>(got);
}

PeerListener::PeerListener(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
  if (m_fd < 0) return;
  const int one = 1;
  setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(m_fd, 1024) < 0) {
    close(m_fd);
    m_fd = -1;
  }
}

PeerListener::~PeerListener() {
  if (m_fd >= 0) close(m_fd);
}

int PeerListener::accept_one(int timeout_ms) {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return -1;
  return accept(m_fd, nullptr, nullptr);
}

}  // namespace tc_bench
