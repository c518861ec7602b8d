#pragma once
// CSerialPeer: the remote gateway's side of the serial bridge.  It accepts
// clients on TCP, hands each to a CPeerConnection, sends keep-alives to the
// established ones, and serves them all from one epoll loop.  Optional faults
// (dropped connections, stalled keep-alives, garbage bytes, stray frames),
// struck by chance or on cue, exercise the client's recovery in demos, soak
// runs and tests.

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "tools/tc-serial-peer/peer_connection.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

struct PeerOptions {
  std::string bind = "0.0.0.0";
  uint16_t port = 5656;
  uint32_t keepalive_s = 10;  // 0: never
  bool fault_drop = false;
  bool fault_stall = false;
  bool fault_garbage = false;
  bool fault_stray = false;
  uint32_t fault_percent = 10;  // chance per established connection and second
  uint32_t seed = 0;            // 0: from the clock
  CPortPolicy policy;           // the ports a client may have opened
  ForcedAnswer answer;          // instead of opening them
};

class CSerialPeer {
 public:
  explicit CSerialPeer(const PeerOptions& options);
  // Closes every connection and the listening socket.
  ~CSerialPeer();
  CSerialPeer(const CSerialPeer&) = delete;
  CSerialPeer& operator=(const CSerialPeer&) = delete;

  // Binds and listens; false (logged) when that fails.
  bool open();
  // Serves until `stop` is true (checked at least every 200 ms).  Each time
  // `strike` is set, a fault strikes every established connection.
  void run(const std::atomic<bool>& stop, std::atomic<bool>& strike);

 private:
  struct Client {
    CPeerConnection* connection;
    uint64_t keepalive_ms;  // when the last keep-alive (or the response) went out
    bool stalled;           // a fault: no more keep-alives
  };

  void dispatch(const epoll_event& event);
  void accept_clients();
  // Registers a port the connection has just opened; an older client of the
  // same port is dropped, so a client that reconnects is never locked out by
  // its own half-open connection.
  void adopt_port(int socket_fd);
  void drop(int socket_fd);
  void send_keepalives(uint64_t now);
  // By the dice, or at every connection when `all`.
  void inject_faults(bool all);

  PeerOptions m_options;
  int m_listen_fd = -1;
  int m_epfd = -1;
  std::map<int, Client> m_clients;          // by socket descriptor
  std::map<int, int> m_serial_to_socket;    // port descriptor to socket descriptor
  std::mt19937 m_random;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
