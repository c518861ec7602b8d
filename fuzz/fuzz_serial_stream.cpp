// The serial bridge's receive path fed an arbitrary TCP byte stream in
// arbitrary pieces: CSerialService::deal_message reads one end of a socket
// pair, as it reads its TCP socket, and writes data frames to another socket
// pair standing in for the pseudo-terminal master.
//
// Input:
//   byte 0       state of the connection when the stream starts (% 3), and
//                whether the device file's reader stalls (/ 3 % 2)
//   byte 1       n: how many piece sizes follow (n % 16)
//   n bytes      piece sizes, 1 to 256 each, taken in turn; none: one piece
//   the rest     the stream
//
// Besides the sanitizers, three checks: the stream is fed once as the input
// splits it and once whole, and what reaches the device file, whether the
// connection fails before the stream ends and the state it ends in must not
// depend on the split; when the device file's reader stalls (a small buffer
// nobody reads until the end), what got through is the start of what a
// prompt reader gets, and the connection fails unless that is all of it; a
// connection still open at the end of the stream closes when the peer does.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_log.h"
#include "service/serial_device.h"
#include "service/serial_frame.h"
#include "service/serial_service.h"

using Zentrova::Iot::TransparentChannel::CSerialService;
using Zentrova::Iot::TransparentChannel::kFrameMaxSize;
using Zentrova::Iot::TransparentChannel::kSerialAwaiting;
using Zentrova::Iot::TransparentChannel::kSerialEstablished;
using Zentrova::Iot::TransparentChannel::kSerialIdle;
using Zentrova::Iot::TransparentChannel::SerialDevice;

namespace {

uint64_t g_ticks = 0;
uint64_t fuzz_clock() { return ++g_ticks; }

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz_serial_stream: %s\n", what);
  std::abort();
}

struct Outcome {
  std::string delivered;       // bytes written to the device file
  bool failed_early = false;   // closed before the peer closed
  int32_t state = kSerialIdle;
  bool operator==(const Outcome& o) const {
    return delivered == o.delivered && failed_early == o.failed_early && state == o.state;
  }
};

void write_all(int fd, const uint8_t* data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    check(n > 0, "write to the socket pair failed");
    data += n;
    len -= static_cast<size_t>(n);
  }
}

void drain(int fd, std::string& out) {
  char buf[4096];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return;
    out.append(buf, static_cast<size_t>(n));
  }
}

// One connection's life: the stream arrives in pieces of `sizes` (whole when
// empty), the receive step runs after each, then the peer closes.
Outcome feed(int32_t state, const uint8_t* stream, size_t len, const std::vector<size_t>& sizes, bool stall) {
  int net[2];
  int dev[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, net) == 0, "socketpair");
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, dev) == 0, "socketpair");
  // The service's ends are non-blocking, like its TCP socket and pty master.
  for (int fd : {net[0], dev[0], dev[1]}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  if (stall) {
    // The kernel's smallest buffer: a few frames fill it.
    const int size = 1;
    setsockopt(dev[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }

  SerialDevice device;
  device.socket_fd = net[0];
  device.device_fd = dev[0];
  device.state.store(state);
  device.config.local_device = "/var/run/tc/ttyFuzz0";
  device.config.ip = "192.0.2.1";
  device.config.device = "ttyS0";
  device.config.parity = "N";

  Outcome outcome;
  bool open = true;
  size_t pos = 0;
  size_t turn = 0;
  while (open && pos < len) {
    size_t piece = sizes.empty() ? len - pos : sizes[turn++ % sizes.size()];
    if (piece > len - pos) piece = len - pos;
    write_all(net[1], stream + pos, piece);
    pos += piece;
    open = CSerialService::deal_message(&device, &fuzz_clock);
    if (!stall) drain(dev[1], outcome.delivered);
    if (open) {
      check(device.recv_buf != nullptr, "open connection without a receive buffer");
      check(device.recv_len < kFrameMaxSize, "receive buffer left full");
    }
  }
  outcome.failed_early = !open;
  outcome.state = device.state.load();
  drain(dev[1], outcome.delivered);
  if (open) {
    shutdown(net[1], SHUT_WR);
    check(!CSerialService::deal_message(&device, &fuzz_clock), "connection survived the peer's close");
  }

  delete[] device.recv_buf;
  for (int fd : {net[0], net[1], dev[0], dev[1]}) close(fd);
  check(outcome.delivered.size() <= len, "more bytes delivered than received");
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz_log_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static const int32_t kStates[] = {kSerialAwaiting, kSerialIdle, kSerialEstablished};
  const int32_t state = kStates[data[0] % 3];
  const bool stall = data[0] / 3 % 2 == 1;
  size_t count = data[1] % 16;
  size_t pos = 2;
  if (count > size - pos) count = size - pos;
  std::vector<size_t> sizes;
  for (size_t i = 0; i < count; ++i) sizes.push_back(static_cast<size_t>(data[pos + i]) + 1);
  pos += count;

  const uint8_t* stream = data + pos;
  const size_t len = size - pos;
  const Outcome split = feed(state, stream, len, sizes, stall);
  if (sizes.empty() && !stall) return 0;
  const Outcome whole = feed(state, stream, len, {}, false);
  if (stall) {
    check(whole.delivered.compare(0, split.delivered.size(), split.delivered) == 0,
          "a stalled reader got other bytes than a prompt one");
    check(split.failed_early || split == whole, "bytes were lost while the connection stayed up");
  } else {
    check(split == whole, "the outcome depends on how the stream was split");
  }
  return 0;
}
