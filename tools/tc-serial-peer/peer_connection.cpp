#include "tools/tc-serial-peer/peer_connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/log/log.h"
#include "service/common.h"
#include "tools/tc-serial-peer/serial_line.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

using namespace TransparentChannel;

namespace {

// Bytes written; 0 when the descriptor takes nothing more for now; -1 on error.
ssize_t write_some(int fd, const void* buf, size_t len, bool socket) {
  const ssize_t n = socket ? send(fd, buf, len, MSG_NOSIGNAL) : write(fd, buf, len);
  if (n >= 0) return n;
  if (errno == EAGAIN || errno == EINTR) return 0;
  TC_LOG(3, "write_some, fd %d: %s", fd, strerror(errno));
  return -1;
}

void take(uint8_t* buf, size_t& len, size_t n) {
  memmove(buf, buf + n, len - n);
  len -= n;
}

}  // namespace

CPeerConnection::CPeerConnection(int epfd, int socket_fd, const CPortPolicy& policy, const ForcedAnswer& answer)
    : m_epfd(epfd), m_socket_fd(socket_fd), m_policy(&policy), m_answer(&answer) {}

CPeerConnection::~CPeerConnection() {
  epoll_del(m_epfd, m_socket_fd);
  close(m_socket_fd);
  if (m_serial_fd >= 0) {
    epoll_del(m_epfd, m_serial_fd);
    close(m_serial_fd);
  }
}

bool CPeerConnection::on_socket_event(uint32_t events) {
  if ((events & EPOLLOUT) && !flush_socket()) return false;
  if (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) return pump_socket();
  return true;
}

bool CPeerConnection::on_serial_event(uint32_t events) {
  if ((events & EPOLLOUT) && !flush_serial()) return false;
  if (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) return pump_serial();
  return true;
}

bool CPeerConnection::send_keepalive() {
  uint8_t frame[kFrameHeaderSize];
  write_frame_header(frame, kFrameKeepalive, static_cast<uint16_t>(kFrameHeaderSize));
  return queue(frame, sizeof frame);
}

bool CPeerConnection::send_raw(const uint8_t* data, size_t len) { return queue(data, len); }

// Client frames, as long as the port takes their bytes.
bool CPeerConnection::pump_socket() {
  for (;;) {
    while (m_to_serial_len == 0) {
      FrameHeader header{};
      const FrameCheck check = examine_frame(m_recv, m_recv_len, header);
      if (check == FrameCheck::need_more) break;
      if (check == FrameCheck::bad_header) {
        TC_LOG(2, "pump_socket, fd %d: bad frame header (magic 0x%x, type %d, len %d), closing", m_socket_fd,
               header.magic, header.type, header.len);
        return false;
      }
      if (!deal_frame(header)) return false;
      take(m_recv, m_recv_len, header.len);
    }
    if (m_to_serial_len > 0) return true;  // resumed by flush_serial

    const int n = recv_tcp(m_socket_fd, m_recv + m_recv_len, static_cast<int32_t>(kFrameMaxSize - m_recv_len));
    if (n < 0) return true;
    if (n == 0) {
      TC_LOG(1, "pump_socket, fd %d: closed by the client", m_socket_fd);
      return false;
    }
    m_recv_len += static_cast<size_t>(n);
  }
}

// False for a frame that ends the connection.
bool CPeerConnection::deal_frame(const FrameHeader& header) {
  const bool request = header.type == kFrameConnectRequest && header.len == kConnectRequestSize;
  if (!established() && request) return deal_request(header);
  if (established() && header.type == kFrameKeepalive) return true;
  if (!established() || header.type != kFrameData || header.len <= kFrameHeaderSize) {
    TC_LOG(2, "deal_frame, fd %d: unexpected frame (magic 0x%x, type %d, len %d), closing", m_socket_fd,
           header.magic, header.type, header.len);
    return false;
  }

  const size_t payload = header.len - kFrameHeaderSize;
  const ssize_t n = write_some(m_serial_fd, m_recv + kFrameHeaderSize, payload, false);
  if (n < 0) return false;
  m_to_serial_len = payload - static_cast<size_t>(n);
  if (m_to_serial_len == 0) return true;
  memcpy(m_to_serial, m_recv + kFrameHeaderSize + n, m_to_serial_len);
  watch_serial(true);
  return true;
}

// The port's writable edges matter only while bytes wait for it; otherwise
// every read at its far end would wake the loop for nothing.
void CPeerConnection::watch_serial(bool room) {
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLET;
  if (room) ev.events |= EPOLLOUT;
  ev.data.fd = m_serial_fd;
  if (epoll_ctl(m_epfd, m_watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, m_serial_fd, &ev) < 0) {
    TC_LOG(2, "watch_serial, fd %d: %s", m_serial_fd, strerror(errno));
  }
  m_watched = true;
}

bool CPeerConnection::deal_request(const FrameHeader& header) {
  ConnectRequest request{};
  read_connect_request(m_recv, header.len, request);
  m_port_path = serial_line_path(request.device);
  if (m_answer->enabled) return force_answer();

  int32_t code = 0;
  std::string reason;
  const int fd = open_serial_line(request, *m_policy, code, reason);
  uint8_t response[kConnectResponseMinSize];
  if (fd < 0) {
    TC_LOG(2, "deal_request, fd %d: %s refused, code %d: %s", m_socket_fd, m_port_path.c_str(), code,
           reason.c_str());
    build_connect_response(code, reason.c_str(), response);
    queue(response, sizeof response);
    return false;
  }

  struct stat st {};
  if (fstat(fd, &st) == 0) m_port_id = st.st_rdev;
  m_serial_fd = fd;
  watch_serial(false);
  char settings[64];
  snprintf(settings, sizeof settings, "%u %u%c%u%s", request.baud_rate, request.data_bit, request.parity,
           request.stop_bit, request.flow_control ? " rtscts" : "");
  const std::string message = "opened " + m_port_path + " " + settings;
  TC_LOG(1, "deal_request, fd %d: %s", m_socket_fd, message.c_str());
  build_connect_response(0, message.c_str(), response);
  return queue(response, sizeof response);
}

// The port stays closed.  A reason longer than the usual response gets a
// longer frame, which it fills without a terminating zero.
bool CPeerConnection::force_answer() {
  if (m_answer->silent) {
    TC_LOG(1, "force_answer, fd %d: %s left unanswered", m_socket_fd, m_port_path.c_str());
    return true;
  }
  const std::string& reason = m_answer->reason;
  const size_t len = std::min(kFrameMaxSize, std::max(kConnectResponseMinSize, kResponseMessageOffset + reason.size()));
  uint8_t response[kFrameMaxSize] = {};
  build_connect_response(m_answer->code, "", response);
  write_frame_header(response, kFrameConnectResponse, static_cast<uint16_t>(len));
  memcpy(response + kResponseMessageOffset, reason.data(), std::min(reason.size(), len - kResponseMessageOffset));
  TC_LOG(2, "force_answer, fd %d: %s refused, code %d", m_socket_fd, m_port_path.c_str(), m_answer->code);
  queue(response, len);
  return false;
}

// Port bytes to the client, as long as the socket takes them.
bool CPeerConnection::pump_serial() {
  if (!established()) return true;
  uint8_t frame[kFrameMaxSize];
  while (m_to_socket_len == 0) {
    const int n = recv_file(m_serial_fd, frame + kFrameHeaderSize, static_cast<int32_t>(kFrameMaxPayload));
    if (n < 0) return true;
    if (n == 0) {
      TC_LOG(2, "pump_serial, fd %d: %s hung up, closing", m_socket_fd, m_port_path.c_str());
      return false;
    }
    const size_t len = static_cast<size_t>(n) + kFrameHeaderSize;
    write_frame_header(frame, kFrameData, static_cast<uint16_t>(len));
    if (!queue(frame, len)) return false;
  }
  return true;  // resumed by flush_socket
}

// Sends now what the socket takes and keeps the rest, in order.
bool CPeerConnection::queue(const uint8_t* data, size_t len) {
  size_t sent = 0;
  if (m_to_socket_len == 0) {
    const ssize_t n = write_some(m_socket_fd, data, len, true);
    if (n < 0) return false;
    sent = static_cast<size_t>(n);
  }
  const size_t rest = len - sent;
  if (rest > sizeof m_to_socket - m_to_socket_len) return true;  // only keep-alives and faults get here
  memcpy(m_to_socket + m_to_socket_len, data + sent, rest);
  m_to_socket_len += rest;
  return true;
}

bool CPeerConnection::flush_socket() {
  if (m_to_socket_len == 0) return true;
  const ssize_t n = write_some(m_socket_fd, m_to_socket, m_to_socket_len, true);
  if (n < 0) return false;
  take(m_to_socket, m_to_socket_len, static_cast<size_t>(n));
  return m_to_socket_len > 0 || pump_serial();
}

bool CPeerConnection::flush_serial() {
  if (m_to_serial_len == 0) return true;
  const ssize_t n = write_some(m_serial_fd, m_to_serial, m_to_serial_len, false);
  if (n < 0) return false;
  take(m_to_serial, m_to_serial_len, static_cast<size_t>(n));
  if (m_to_serial_len > 0) return true;
  watch_serial(false);
  return pump_socket();
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
