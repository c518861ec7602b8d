#pragma once
// The remote end of one bridged link, as seen by the benchmark: either a plain
// TCP stream (what socat carries) or the framed protocol of the serial bridge
// (connect request/response, data and keep-alive frames).

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tc_bench {

class PeerLink {
 public:
  PeerLink(int fd, bool framed);
  ~PeerLink();
  PeerLink(const PeerLink&) = delete;
  PeerLink& operator=(const PeerLink&) = delete;

  // Framed links: reads the connect request and accepts it.  False on timeout or a bad request.
  bool handshake(int timeout_ms);
  const std::string& device() const { return m_device; }

  // Sends all of `data` (as data frames on a framed link).  False once the link is gone.
  bool send(const uint8_t* data, size_t len);
  bool send_keepalive();
  // Payload bytes received into `out` (at least 1); 0 on timeout; -1 when the link closed or broke the protocol.
  int receive(uint8_t* out, size_t cap, int timeout_ms);
  bool alive() const { return m_alive.load(); }
  int fd() const { return m_fd; }

 private:
  int read_some(int timeout_ms);

  int m_fd;
  bool m_framed;
  std::string m_device;
  std::mutex m_send_lock;  // keep-alives come from another thread
  std::vector<uint8_t> m_buf;
  size_t m_held = 0;
  std::vector<uint8_t> m_out;
  std::atomic<bool> m_alive{true};
};

// A listening socket on 127.0.0.1:port.
class PeerListener {
 public:
  explicit PeerListener(uint16_t port);
  ~PeerListener();
  bool ok() const { return m_fd >= 0; }
  // A new connection, or -1 after `timeout_ms`.
  int accept_one(int timeout_ms);

 private:
  int m_fd;
};

}  // namespace tc_bench
