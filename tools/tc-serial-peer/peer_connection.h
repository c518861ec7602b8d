#pragma once
// CPeerConnection: one client of tc-serial-peer.  It reads the connect
// request, opens the named serial port, answers, and then relays bytes
// between the port and the socket in data frames.  Each side is drained only
// while the other keeps up: at most one frame waits for a slow port or a full
// socket, and the other side is left unread (TCP or the port's own buffer
// holds the rest) until it has gone out.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "service/serial_frame.h"
#include "tools/tc-serial-peer/port_policy.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

// What a peer may answer every request with instead of opening the port.
struct ForcedAnswer {
  bool enabled = false;
  bool silent = false;  // no answer at all
  int32_t code = 0;     // else this refusal and its reason
  std::string reason;
};

class CPeerConnection {
 public:
  // Takes over `socket_fd` (already registered with `epfd`); opens only the
  // ports `policy` allows, unless `answer` says otherwise (both must outlive
  // the connection).
  CPeerConnection(int epfd, int socket_fd, const CPortPolicy& policy, const ForcedAnswer& answer);
  // Deregisters and closes the socket and the port.
  ~CPeerConnection();
  CPeerConnection(const CPeerConnection&) = delete;
  CPeerConnection& operator=(const CPeerConnection&) = delete;

  int socket_fd() const { return m_socket_fd; }
  // -1 until the port is open.
  int serial_fd() const { return m_serial_fd; }
  bool established() const { return m_serial_fd >= 0; }
  // Device number of the open port, so that two clients never share one.
  dev_t port_id() const { return m_port_id; }
  const std::string& port_path() const { return m_port_path; }

  // Each returns false when the connection is over (the reason is logged);
  // the owner then deletes it.
  bool on_socket_event(uint32_t events);
  bool on_serial_event(uint32_t events);
  bool send_keepalive();
  // Raw bytes to the client, framed or not (fault injection).
  bool send_raw(const uint8_t* data, size_t len);

 private:
  bool pump_socket();
  bool pump_serial();
  bool deal_frame(const TransparentChannel::FrameHeader& header);
  bool deal_request(const TransparentChannel::FrameHeader& header);
  bool force_answer();
  bool queue(const uint8_t* data, size_t len);
  bool flush_socket();
  bool flush_serial();
  void watch_serial(bool room);

  int m_epfd;
  int m_socket_fd;
  const CPortPolicy* m_policy;
  const ForcedAnswer* m_answer;
  int m_serial_fd = -1;
  bool m_watched = false;  // the port is in the epoll set
  dev_t m_port_id = 0;
  std::string m_port_path;

  uint8_t m_recv[TransparentChannel::kFrameMaxSize];
  size_t m_recv_len = 0;
  // Room for one data frame cut short plus a few keep-alives.
  uint8_t m_to_socket[2 * TransparentChannel::kFrameMaxSize];
  size_t m_to_socket_len = 0;
  uint8_t m_to_serial[TransparentChannel::kFrameMaxPayload];
  size_t m_to_serial_len = 0;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
