#pragma once
// The remote gateway's side of the serial bridge, driven step by step by a
// test: a real TCP listener and blocking connections read with time-outs.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "service/serial_frame.h"

namespace tc_test {

using Bytes = std::vector<uint8_t>;

Bytes make_frame(uint8_t type, const std::string& payload);

// One framed TCP connection, from either end.
class PeerLink {
 public:
  explicit PeerLink(int fd) : m_fd(fd) {}
  ~PeerLink();
  PeerLink(const PeerLink&) = delete;
  PeerLink& operator=(const PeerLink&) = delete;

  bool send_bytes(const Bytes& bytes);
  bool send_frame(uint8_t type, const std::string& payload) { return send_bytes(make_frame(type, payload)); }
  // A response frame of `len` bytes (268 or more).
  bool send_response(int32_t code, const std::string& message, size_t len = 268);
  bool read_request(Zentrova::Iot::TransparentChannel::ConnectRequest& out, int timeout_ms = 5000);
  // The next `n` bytes as they come, frame or not; fewer on time-out.
  Bytes read_bytes(size_t n, int timeout_ms = 5000);
  // The next whole frame; false on time-out or close.
  bool read_frame(Bytes& out, int timeout_ms = 5000);
  // Payloads of data frames until `n` bytes came; fewer on time-out.
  std::string read_data(size_t n, int timeout_ms = 10000);
  // True once the service closed the connection (data still arriving is dropped).
  bool wait_closed(int timeout_ms = 5000);

 private:
  bool fill(size_t n, int timeout_ms);

  int m_fd;
  Bytes m_buf;
};

class TestPeer {
 public:
  explicit TestPeer(const std::string& ip, uint16_t port = 5656);
  ~TestPeer();
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  bool listening() const { return m_fd >= 0; }
  std::unique_ptr<PeerLink> accept(int timeout_ms = 5000);
  // Accepts, reads the request and answers code 0 with "ok"; null on failure.
  std::unique_ptr<PeerLink> establish(Zentrova::Iot::TransparentChannel::ConnectRequest* request = nullptr,
                                      int timeout_ms = 5000);

 private:
  int m_fd = -1;
};

// A client connection to ip:port (blocking); null when nobody accepts.
std::unique_ptr<PeerLink> connect_to(const std::string& ip, uint16_t port);

}  // namespace tc_test
