#include "tools/tc-serial-peer/serial_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/log/log.h"
#include "common/platform/src/thread/Thread.h"
#include "service/common.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

using Platform::tickMs;
using TransparentChannel::accept_tcp;
using TransparentChannel::epoll_add;

namespace {

constexpr int kMaxEvents = 64;
constexpr int kWaitMs = 200;
constexpr int kBacklog = 64;
constexpr uint64_t kFaultPeriodMs = 1000;
constexpr int kWindow = 32768;

}  // namespace

CSerialPeer::CSerialPeer(const PeerOptions& options)
    : m_options(options), m_random(options.seed ? options.seed : static_cast<uint32_t>(tickMs())) {}

CSerialPeer::~CSerialPeer() {
  while (!m_clients.empty()) drop(m_clients.begin()->first);
  if (m_listen_fd >= 0) close(m_listen_fd);
  if (m_epfd >= 0) close(m_epfd);
}

bool CSerialPeer::open() {
  m_epfd = epoll_create1(EPOLL_CLOEXEC);
  // Not the shared create_tcp: its SO_REUSEPORT would let a second peer share
  // the port silently instead of failing here.
  m_listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (m_epfd < 0 || m_listen_fd < 0) {
    TC_LOG(3, "open, socket: %s", strerror(errno));
    return false;
  }
  const int one = 1;
  setsockopt(m_listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  // A slow port holds the client back after a bounded window, not after
  // megabytes of TCP.  The window is clamped, not the buffer (a buffer fixed
  // with SO_RCVBUF drops what its window let in once the kernel's bookkeeping
  // outgrows it, and the retransmissions stall both ways), and on the
  // listening socket, so that clients are offered it from their first segment.
  setsockopt(m_listen_fd, IPPROTO_TCP, TCP_WINDOW_CLAMP, &kWindow, sizeof kWindow);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(m_options.port);
  if (inet_aton(m_options.bind.c_str(), &addr.sin_addr) == 0) {
    TC_LOG(3, "open, bad bind address %s", m_options.bind.c_str());
    return false;
  }
  if (bind(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(m_listen_fd, kBacklog) < 0) {
    TC_LOG(3, "open, %s:%u: %s", m_options.bind.c_str(), m_options.port, strerror(errno));
    return false;
  }
  if (epoll_add(m_epfd, m_listen_fd) < 0) return false;
  TC_LOG(1, "open, listening on %s:%u, keep-alive every %u s", m_options.bind.c_str(), m_options.port,
         m_options.keepalive_s);
  return true;
}

void CSerialPeer::run(const std::atomic<bool>& stop, std::atomic<bool>& strike) {
  epoll_event events[kMaxEvents];
  uint64_t last_fault = tickMs();
  while (!stop.load()) {
    const int n = epoll_wait(m_epfd, events, kMaxEvents, kWaitMs);
    for (int i = 0; i < n; ++i) dispatch(events[i]);
    const uint64_t now = tickMs();
    send_keepalives(now);
    if (strike.exchange(false)) inject_faults(true);
    if (now - last_fault >= kFaultPeriodMs) {
      last_fault = now;
      inject_faults(false);
    }
  }
}

void CSerialPeer::dispatch(const epoll_event& event) {
  const int fd = event.data.fd;
  if (fd == m_listen_fd) {
    accept_clients();
    return;
  }
  int socket_fd = fd;
  bool ok = true;
  const auto serial = m_serial_to_socket.find(fd);
  if (serial != m_serial_to_socket.end()) {
    socket_fd = serial->second;
    ok = m_clients.at(socket_fd).connection->on_serial_event(event.events);
  } else {
    const auto client = m_clients.find(fd);
    if (client == m_clients.end()) return;  // closed earlier in this batch
    const bool was_established = client->second.connection->established();
    ok = client->second.connection->on_socket_event(event.events);
    if (ok && !was_established && client->second.connection->established()) adopt_port(fd);
  }
  if (!ok) drop(socket_fd);
}

void CSerialPeer::accept_clients() {
  for (;;) {
    const int fd = accept_tcp(m_listen_fd);
    if (fd < 0) return;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    // A small answer from the port goes out at once, not after the
    // acknowledgement of the previous one (up to the client's delayed ack).
    const int nodelay = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    if (epoll_add(m_epfd, fd) < 0) {
      close(fd);
      continue;
    }
    m_clients[fd] = Client{new CPeerConnection(m_epfd, fd, m_options.policy, m_options.answer), 0, false};
  }
}

void CSerialPeer::adopt_port(int socket_fd) {
  Client& fresh = m_clients.at(socket_fd);
  fresh.keepalive_ms = tickMs();
  m_serial_to_socket[fresh.connection->serial_fd()] = socket_fd;

  std::vector<int> older;
  for (const auto& entry : m_clients) {
    const CPeerConnection* other = entry.second.connection;
    if (entry.first != socket_fd && other->established() && other->port_id() == fresh.connection->port_id()) {
      older.push_back(entry.first);
    }
  }
  for (int fd : older) {
    TC_LOG(1, "adopt_port, %s moves from fd %d to fd %d", fresh.connection->port_path().c_str(), fd, socket_fd);
    drop(fd);
  }
}

void CSerialPeer::drop(int socket_fd) {
  const auto it = m_clients.find(socket_fd);
  if (it == m_clients.end()) return;
  CPeerConnection* connection = it->second.connection;
  if (connection->serial_fd() >= 0) m_serial_to_socket.erase(connection->serial_fd());
  m_clients.erase(it);
  TC_LOG(1, "drop, fd %d closed", socket_fd);
  delete connection;
}

void CSerialPeer::send_keepalives(uint64_t now) {
  if (m_options.keepalive_s == 0) return;
  const uint64_t interval = static_cast<uint64_t>(m_options.keepalive_s) * 1000;
  std::vector<int> broken;
  for (auto& entry : m_clients) {
    Client& client = entry.second;
    if (!client.connection->established() || client.stalled || now - client.keepalive_ms < interval) continue;
    client.keepalive_ms = now;
    if (!client.connection->send_keepalive()) broken.push_back(entry.first);
  }
  for (int fd : broken) drop(fd);
}

void CSerialPeer::inject_faults(bool all) {
  std::vector<int> kinds;  // 0 drop, 1 stall, 2 garbage, 3 stray
  if (m_options.fault_drop) kinds.push_back(0);
  if (m_options.fault_stall) kinds.push_back(1);
  if (m_options.fault_garbage) kinds.push_back(2);
  if (m_options.fault_stray) kinds.push_back(3);
  if (kinds.empty()) return;

  std::vector<int> targets;
  for (const auto& entry : m_clients) {
    if (entry.second.connection->established()) targets.push_back(entry.first);
  }
  for (int fd : targets) {
    if (!all && m_random() % 100 >= m_options.fault_percent) continue;
    switch (kinds[m_random() % kinds.size()]) {
      case 0:
        TC_LOG(1, "inject_faults, dropping fd %d", fd);
        drop(fd);
        break;
      case 1:
        if (m_clients.at(fd).stalled) break;
        TC_LOG(1, "inject_faults, no more keep-alives on fd %d", fd);
        m_clients.at(fd).stalled = true;
        break;
      case 2: {
        uint8_t garbage[16];
        for (uint8_t& b : garbage) b = static_cast<uint8_t>(m_random());
        garbage[0] = 0x5A;  // never the magic, so the client must reject it
        TC_LOG(1, "inject_faults, garbage to fd %d", fd);
        if (!m_clients.at(fd).connection->send_raw(garbage, sizeof garbage)) drop(fd);
        break;
      }
      default: {
        // Well formed, but a second answer to a request long answered.
        uint8_t stray[TransparentChannel::kConnectResponseMinSize];
        TransparentChannel::build_connect_response(0, "stray", stray);
        TC_LOG(1, "inject_faults, stray frame to fd %d", fd);
        if (!m_clients.at(fd).connection->send_raw(stray, sizeof stray)) drop(fd);
        break;
      }
    }
  }
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
