#include "service/serial_link.h"

#include <poll.h>
#include <sys/uio.h>
#include <termios.h>

#include <cstring>
#include <new>

#include "common/log/log.h"
#include "service/common.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

namespace {

// Data frames handed to the device file in one writev.
constexpr int kMaxRun = 64;
constexpr size_t kSendPayload = kLinkSendFrames * kFrameMaxPayload;

}  // namespace

CSerialLink::CSerialLink(const SerialDeviceConfig& config, int device_fd, int epfd, Clock clock)
    : m_config(config), m_device_fd(device_fd), m_epfd(epfd), m_clock(clock), m_state_since(clock()) {}

CSerialLink::~CSerialLink() = default;

void CSerialLink::set_state(int32_t state) {
  if (m_state.exchange(state) != state) m_state_since = m_clock();
}

void CSerialLink::attach(int socket_fd) {
  m_socket_fd = socket_fd;
  ++m_connects;
  set_state(kSerialIdle);
}

void CSerialLink::detach(const char* reason) {
  if (m_state.load() == kSerialEstablished) {
    ++m_drops;
    m_last_drop = m_fault ? m_fault : reason;
  }
  m_fault = nullptr;
  m_socket_fd = -1;
  set_state(kSerialIdle);
  m_recv_buf.reset();
  m_recv_len = 0;
  m_written = 0;
  m_device_held = false;
  const bool device_unread = m_to_socket_len > 0;
  m_to_socket.reset();
  m_to_socket_off = 0;
  m_to_socket_len = 0;
  // Registration is edge-triggered: a writer blocked on the full device file
  // makes no new edge, so what it wrote is taken away now.
  if (device_unread) deal_device_message();
}

// Receive buffers come and go with connections; running out of memory costs
// that one connection, not the thread.
bool CSerialLink::ensure_buffer() {
  if (!m_recv_buf) m_recv_buf.reset(new (std::nothrow) uint8_t[kLinkReceiveSize]);
  return m_recv_buf != nullptr;
}

void CSerialLink::deal_connect() {
  const SerialDeviceConfig& c = m_config;
  TC_LOG(1, "deal connect, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
         static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
  set_state(kSerialAwaiting);
  m_recv_len = 0;
  ensure_buffer();

  uint8_t request[kConnectRequestSize];
  build_connect_request(c, request);
  // A connection without its response is redone by the next sweep.
  const int nsend = send_frames(request, kConnectRequestSize);
  if (nsend < 0) TC_LOG(3, "deal connect, send_tcp error, nsend: %d, size: %zu", nsend, kConnectRequestSize);
}

bool CSerialLink::deal_message() {
  // A connection may turn readable before its writable edge was handled.
  if (!ensure_buffer()) return false;
  const SerialDeviceConfig& c = m_config;
  uint8_t* const buf = m_recv_buf.get();
  for (;;) {
    // The whole frames held, in order.  Runs of data frames go to the device
    // file in one writev each; a run it takes only in part stays held.
    size_t at = 0;
    bool ok = true;
    while (ok) {
      iovec run[kMaxRun];
      size_t bytes = 0;
      const int count = gather_run(at, run, bytes);
      if (count > 0) {
        const int nwrite = reader_ready() ? send_file_some(m_device_fd, run, count) : 0;
        if (nwrite < 0) {
          TC_LINK_FAULT(m_fault, 3, "deal message, send_file error nread: %d, nwrite: %d", static_cast<int>(bytes),
                        nwrite);
          ok = false;
          break;
        }
        m_bytes_to_device += static_cast<size_t>(nwrite);
        size_t left = static_cast<size_t>(nwrite);
        for (int i = 0; i < count; ++i) {
          if (left < run[i].iov_len) {
            m_written += left;
            break;
          }
          left -= run[i].iov_len;
          m_written = 0;
          ++m_frames_to_device;
          const int payload = read_frame_header(buf + at).len - static_cast<int>(kFrameHeaderSize);
          TC_LOG(0, "deal network message, [%s:%s] --> [%s], data length: %d", c.ip.c_str(), c.device.c_str(),
                 c.local_device.c_str(), payload);
          at += static_cast<size_t>(payload) + kFrameHeaderSize;
        }
        if (static_cast<size_t>(nwrite) < bytes) {
          m_device_held = true;
          watch_device_room(true);
          break;
        }
        if (m_device_held) {
          // The peer's keep-alives waited in TCP meanwhile: the pause was not its silence.
          m_device_held = false;
          m_last_keepalive_ms = m_clock();
        }
        continue;
      }

      FrameHeader header{};
      const FrameCheck check = examine_frame(buf + at, m_recv_len - at, header);
      if (check == FrameCheck::need_more) break;
      if (check == FrameCheck::bad_header) {
        TC_LINK_FAULT(m_fault, 3, "deal message, message header error, magic: 0x%x, type: %d, len: %d", header.magic,
                      header.type, header.len);
        ok = false;
        break;
      }
      const int32_t state = m_state.load();
      switch (classify_frame(header, state == kSerialEstablished, state == kSerialAwaiting)) {
        case FrameRole::keepalive:
          m_last_keepalive_ms = m_clock();
          m_keepalive_seen = m_last_keepalive_ms;
          TC_LOG(0, "deal keepalive message, [%s:%s] --> [%s]", c.ip.c_str(), c.device.c_str(),
                 c.local_device.c_str());
          break;
        case FrameRole::response: {
          int32_t code = 0;
          char message[kFrameMaxSize];
          read_connect_response(buf + at, header.len, code, message, sizeof message);
          m_last_keepalive_ms = m_clock();
          TC_LOG(1, "deal message, response code:%d, message:%s, fd:%d, local_device:%s, remote_device:%s:%s", code,
                 message, m_socket_fd, c.local_device.c_str(), c.ip.c_str(), c.device.c_str());
          set_state(code == 0 ? kSerialEstablished : kSerialRefused);
          ok = code == 0;
          break;
        }
        default:  // data frames went out in runs above
          TC_LINK_FAULT(m_fault, 3, "deal message, message type error, magic: 0x%x, type: %d, len: %d", header.magic,
                        header.type, header.len);
          ok = false;
          break;
      }
      if (ok) at += header.len;
    }
    if (at == m_recv_len) {
      m_recv_len = 0;
    } else if (at > 0) {
      memmove(buf, buf + at, m_recv_len - at);
      m_recv_len -= at;
    }
    if (!ok) return false;
    if (m_device_held) return true;  // TCP holds the rest until the device file takes this

    const int n = recv_tcp(m_socket_fd, buf + m_recv_len, static_cast<int32_t>(kLinkReceiveSize - m_recv_len));
    if (n < 0) return true;  // drained; a partial frame stays for the next edge
    if (n == 0) {
      TC_LINK_FAULT(m_fault, 1, "deal message, connection closed by the peer, fd:%d", m_socket_fd);
      return false;
    }
    m_recv_len += static_cast<size_t>(n);
  }
}

int CSerialLink::gather_run(size_t at, iovec* run, size_t& bytes) const {
  const bool established = m_state.load() == kSerialEstablished;
  uint8_t* const buf = m_recv_buf.get();
  int count = 0;
  FrameHeader header{};
  while (count < kMaxRun && examine_frame(buf + at, m_recv_len - at, header) == FrameCheck::complete &&
         classify_frame(header, established, false) == FrameRole::data) {
    // The first frame may have gone out in part already.
    const size_t skip = count == 0 ? m_written : 0;
    run[count].iov_base = buf + at + kFrameHeaderSize + skip;
    run[count].iov_len = header.len - kFrameHeaderSize - skip;
    bytes += run[count].iov_len;
    ++count;
    at += header.len;
  }
  return count;
}

bool CSerialLink::deal_device_message() {
  if (m_to_socket_len > 0) {
    const int n =
        send_tcp_some(m_socket_fd, m_to_socket.get() + m_to_socket_off, static_cast<int32_t>(m_to_socket_len));
    if (n < 0) {
      TC_LINK_FAULT(m_fault, 3, "deal device message, send_tcp error nread: %d, nwrite: %d",
                    static_cast<int>(m_to_socket_len), n);
      return false;
    }
    if (n > 0) m_taken_ms = m_clock();
    m_to_socket_off += static_cast<size_t>(n);
    m_to_socket_len -= static_cast<size_t>(n);
    if (m_to_socket_len > 0) return true;  // the device file stays unread until the socket takes the rest
    m_to_socket_off = 0;
  }

  // Payload slots, one per frame, each behind room for its header: the
  // frames are built in place and go out back to back.
  uint8_t frames[kLinkSendFrames * kFrameMaxSize];
  const SerialDeviceConfig& c = m_config;
  for (;;) {
    size_t held = 0;
    bool drained = false;
    while (held < kSendPayload) {
      // A pseudo-terminal gives at most its line buffer per read; the rounds
      // fill the slots frame by frame, as a read per frame would.
      iovec slots[kLinkSendFrames];
      int count = 0;
      for (size_t at = held; at < kSendPayload; at = (at / kFrameMaxPayload + 1) * kFrameMaxPayload) {
        const size_t slot = at / kFrameMaxPayload;
        slots[count].iov_base = frames + slot * kFrameMaxSize + kFrameHeaderSize + at % kFrameMaxPayload;
        slots[count].iov_len = kFrameMaxPayload - at % kFrameMaxPayload;
        ++count;
      }
      const int n = recv_file(m_device_fd, slots, count);
      if (n <= 0) {  // nothing left (-1), or end of file or an error (0)
        drained = true;
        break;
      }
      held += static_cast<size_t>(n);
      // Less than a frame's worth: a request, not a stream, and the terminal
      // is empty; it goes out now, and a byte written later raises a new edge
      // (a program closing it, a hang-up, which every event reports).
      if (static_cast<size_t>(n) < kFrameMaxPayload) break;
    }
    if (held == 0) return true;
    // Nothing is queued while the link is down: the bytes are dropped.
    if (m_state.load() != kSerialEstablished) {
      if (drained) return true;
      continue;
    }

    size_t len = 0;
    for (size_t at = 0; at < held; at += kFrameMaxPayload) {
      const size_t payload = held - at < kFrameMaxPayload ? held - at : kFrameMaxPayload;
      write_frame_header(frames + len, kFrameData, static_cast<uint16_t>(payload + kFrameHeaderSize));
      len += payload + kFrameHeaderSize;
      ++m_frames_to_peer;
      TC_LOG(0, "deal device message, [%s] --> [%s:%s], data length: %d", c.local_device.c_str(), c.ip.c_str(),
             c.device.c_str(), static_cast<int>(payload));
    }
    m_bytes_to_peer += held;
    const int nwrite = send_frames(frames, len);
    if (nwrite < 0) {
      TC_LINK_FAULT(m_fault, 3, "deal device message, send_tcp error nread: %d, nwrite: %d", static_cast<int>(len),
                    nwrite);
      return false;
    }
    if (m_to_socket_len > 0 || drained) return true;
  }
}

int CSerialLink::send_frames(const uint8_t* frames, size_t len) {
  const int n = send_tcp_some(m_socket_fd, frames, static_cast<int32_t>(len));
  if (n < 0 || static_cast<size_t>(n) == len) return n;
  if (!m_to_socket) m_to_socket.reset(new (std::nothrow) uint8_t[kLinkSendFrames * kFrameMaxSize]);
  if (!m_to_socket) return -1;
  m_to_socket_off = 0;
  m_to_socket_len = len - static_cast<size_t>(n);
  memcpy(m_to_socket.get(), frames + n, m_to_socket_len);
  m_taken_ms = m_clock();
  return n;
}

bool CSerialLink::deal_device_room() {
  if (m_device_held) return deal_message();
  // An edge nobody waits for: stop asking for them until payloads wait again.
  watch_device_room(false);
  return true;
}

void CSerialLink::watch_device_room(bool watch) {
  if (watch == m_device_room_watched) return;
  m_device_room_watched = watch;
  epoll_mod(m_epfd, m_device_fd, watch);
}

void CSerialLink::track_reader() {
  m_reader_tracked = true;
  m_reader = Reader::absent;
  check_reader();
}

void CSerialLink::check_reader() {
  if (!m_reader_tracked) return;
  // A closed slave shows as a hang-up on the master.
  pollfd p{m_device_fd, 0, 0};
  if (poll(&p, 1, 0) == 1 && (p.revents & POLLHUP)) {
    m_reader = Reader::absent;
    return;
  }
  if (m_reader != Reader::absent) return;
  // A program that just opened the terminal usually sets it to raw mode next.
  termios tio{};
  if (tcgetattr(m_device_fd, &tio) == 0 && (tio.c_lflag & ICANON)) {
    m_reader = Reader::settling;
    m_settle_until = m_clock() + kReaderSettleMs;
  } else {
    m_reader = Reader::present;
  }
}

uint64_t CSerialLink::settle_due() const {
  return m_reader == Reader::settling && m_device_held ? m_settle_until : 0;
}

bool CSerialLink::reader_ready() {
  if (m_reader == Reader::settling && m_clock() >= m_settle_until) m_reader = Reader::present;
  return m_reader == Reader::present;
}

SerialLinkStats CSerialLink::stats(uint64_t now) const {
  SerialLinkStats s;
  s.config = m_config;
  s.state = m_state.load();
  s.state_ms = now - m_state_since;
  s.bytes_to_peer = m_bytes_to_peer;
  s.bytes_to_device = m_bytes_to_device;
  s.frames_to_peer = m_frames_to_peer;
  s.frames_to_device = m_frames_to_device;
  s.connects = m_connects;
  s.drops = m_drops;
  s.last_drop = m_last_drop;
  s.keepalive_ms = m_keepalive_seen == 0 ? -1 : static_cast<int64_t>(now - m_keepalive_seen);
  return s;
}

int32_t CSerialLink::silent_ms(uint64_t now) const {
  int32_t silent = static_cast<int32_t>(now - m_last_keepalive_ms);
  if (m_to_socket_len > 0) {
    const int32_t stalled = static_cast<int32_t>(now - m_taken_ms);
    if (stalled > silent) silent = stalled;
  }
  return silent;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
