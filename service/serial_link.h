#pragma once
// CSerialLink: one live device of the serial bridge, that is its device file,
// its TCP connection to the remote gateway, and the bytes on their way
// between the two.  The bridge's loop owns the descriptors and the epoll set;
// a link reads and writes them, keeps what a full buffer did not take, and
// tells the loop when its connection must be closed.
//
// Flow control works as on a serial line that has it.  When the socket takes
// only part of the frames made from the device file, the rest waits here and
// the device file is not read again until the socket has taken it; the
// program writing the device file then blocks on a full pseudo-terminal.
// When the device file takes only part of the received payloads, the rest
// waits in the receive buffer and the socket is not read again until the
// device file has taken it; TCP then slows the peer down.  Frames are never
// cut: what waits is always the tail of whole frames.
//
// Nothing is written to the device file while no program holds it open, and
// a program that opens it while it is still in the terminal's canonical mode
// gets a moment to set its line up before bytes arrive, so that no byte meets
// the cooked defaults (line editing, signal characters) on its way in.

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/log/log.h"
#include "service/serial_device_config.h"
#include "service/serial_frame.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

// Connection states.  Only the service thread changes them; the status
// method reads them from the D-Bus thread.
constexpr int32_t kSerialEstablished = 0;  // data and keep-alive frames flow
constexpr int32_t kSerialIdle = -1;        // no connection, or a connect in progress
constexpr int32_t kSerialAwaiting = 1;     // connect request sent, awaiting the response
constexpr int32_t kSerialRefused = -2;     // the remote side answered a non-zero code

// Received bytes held per connection: about ten of the largest frames, so
// that one writev hands several payloads to the device file.
constexpr size_t kLinkReceiveSize = 16384;
// Frames made from one round of device reads (16 KB of payload at most),
// sent with one send.
constexpr size_t kLinkSendFrames = 11;
// How long a program that opened the device file in canonical mode has to
// set its line up before held bytes are written.
constexpr uint64_t kReaderSettleMs = 50;

// Logs a fault of a link and keeps its text, the literal itself, as the
// reason of the drop it causes.
#define TC_LINK_FAULT(slot, level, format, ...) \
  do {                                          \
    TC_LOG((level), format, __VA_ARGS__);       \
    (slot) = (format);                          \
  } while (0)

// A link's counters as its loop saw them at one moment.
struct SerialLinkStats {
  SerialDeviceConfig config;
  int32_t state = kSerialIdle;
  uint64_t state_ms = 0;  // in this state for
  uint64_t bytes_to_peer = 0;
  uint64_t bytes_to_device = 0;
  uint64_t frames_to_peer = 0;
  uint64_t frames_to_device = 0;
  uint64_t connects = 0;  // connection attempts
  uint64_t drops = 0;     // established connections lost
  const char* last_drop = nullptr;  // the log text of the fault behind the last drop
  int64_t keepalive_ms = -1;        // since the last keep-alive; -1 before the first
};

class CSerialLink {
 public:
  using Clock = uint64_t (*)();

  // `device_fd`: the non-blocking device file (pseudo-terminal master),
  // registered with `epfd` by epoll_add.  Not closed by the link.
  CSerialLink(const SerialDeviceConfig& config, int device_fd, int epfd, Clock clock);
  ~CSerialLink();
  CSerialLink(const CSerialLink&) = delete;
  CSerialLink& operator=(const CSerialLink&) = delete;

  const SerialDeviceConfig& config() const { return m_config; }
  int device_fd() const { return m_device_fd; }
  int socket_fd() const { return m_socket_fd; }
  int32_t state() const { return m_state.load(); }

  // A connection attempt on `socket_fd` (-1 when none could be made) has
  // begun: state -1.  The socket stays the caller's to register and close.
  void attach(int socket_fd);
  // The connection is gone and its socket closed by the caller: state -1, and
  // whatever was held either way is dropped.  Device bytes that wait are then
  // read and discarded, as everything typed while the link is down.  An
  // established connection counts as dropped, for the fault noted last or
  // else for `reason`.
  void detach(const char* reason = nullptr);
  // A fault found outside the link (a keep-alive time-out) that will close it.
  void note_fault(const char* text) { m_fault = text; }
  SerialLinkStats stats(uint64_t now) const;

  // The connection completed: sends the connect request and awaits the
  // response (state 1).
  void deal_connect();
  // Socket readable: writes the payloads that wait, then receives and handles
  // every whole frame while the device file takes the data.  False when the
  // connection must be closed: peer gone, read or write error, malformed,
  // unexpected or refused frame.
  bool deal_message();
  // Device file readable: sends the frames that wait, then reads the device
  // file in rounds of up to 16 KB and sends them as data frames while the
  // socket takes them.  Without an established connection the bytes are read
  // and discarded.  False when a send failed.
  bool deal_device_message();
  // Writable edges: resume the direction that waits for that descriptor.
  bool deal_socket_room() { return m_to_socket_len == 0 || deal_device_message(); }
  bool deal_device_room();

  // From now on bytes go to the device file only while a program holds it
  // open: the loop watches its opens and calls check_reader() after each
  // open or hang-up.  Without this a reader counts as always there.
  void track_reader();
  void check_reader();
  // When held payloads may go to a reader that is still setting up; 0 when
  // nothing waits for that.
  uint64_t settle_due() const;

  // True while the socket is not read because the device file has not taken
  // what came: the peer's silence is then the link's own doing.
  bool holding_peer() const { return m_device_held; }
  // Milliseconds since the peer last showed it is alive: its last keep-alive
  // or the response, or, while frames wait for the socket, the last byte the
  // socket took, whichever is older.
  int32_t silent_ms(uint64_t now) const;

 private:
  enum class Reader { absent, settling, present };

  bool ensure_buffer();
  // The payloads of the whole data frames held from `at` on, up to the first
  // other frame; their count, `bytes` their total.
  int gather_run(size_t at, iovec* run, size_t& bytes) const;
  // Sends whole frames; what the socket does not take waits.  -1 on error.
  int send_frames(const uint8_t* frames, size_t len);
  bool reader_ready();
  void watch_device_room(bool watch);
  void set_state(int32_t state);

  const SerialDeviceConfig m_config;
  const int m_device_fd;
  const int m_epfd;
  const Clock m_clock;
  int m_socket_fd = -1;
  std::atomic<int32_t> m_state{kSerialIdle};
  uint64_t m_last_keepalive_ms = 0;

  // Counters: written by the loop only, copied out by it (stats()).
  uint64_t m_state_since = 0;
  uint64_t m_bytes_to_peer = 0;
  uint64_t m_bytes_to_device = 0;
  uint64_t m_frames_to_peer = 0;
  uint64_t m_frames_to_device = 0;
  uint64_t m_connects = 0;
  uint64_t m_drops = 0;
  uint64_t m_keepalive_seen = 0;  // 0: none yet
  const char* m_fault = nullptr;
  const char* m_last_drop = nullptr;

  // Peer to device file.  The first held frame may have gone out in part.
  std::unique_ptr<uint8_t[]> m_recv_buf;
  size_t m_recv_len = 0;
  size_t m_written = 0;
  bool m_device_held = false;
  // Whether the device file's writable edges are asked for: only while
  // payloads wait, else every read of its program would wake the loop.
  bool m_device_room_watched = true;

  // Device file to peer: frames the socket has not taken yet.
  std::unique_ptr<uint8_t[]> m_to_socket;
  size_t m_to_socket_off = 0;
  size_t m_to_socket_len = 0;
  uint64_t m_taken_ms = 0;

  bool m_reader_tracked = false;
  Reader m_reader = Reader::present;
  uint64_t m_settle_until = 0;
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
