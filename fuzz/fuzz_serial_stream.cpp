// One link of the serial bridge (CSerialLink) fed arbitrary bytes in
// arbitrary pieces, both ways, over socket pairs standing in for its TCP
// socket and its pseudo-terminal, with readers at the far ends that may take
// a few bytes at a time, so that sends and device writes are cut anywhere.
//
// Input:
//   byte 0       bits 0-1: state of the connection when the stream starts
//                (% 3: awaiting the response, connecting, established);
//                bit 2: the device file's reader is slow; bit 3: the peer's
//                reader is slow
//   byte 1       n: how many sizes follow (n % 16)
//   n bytes      sizes, 1 to 256 each, taken in turn for the pieces written
//                and the bytes a slow reader takes; none: everything at once
//   the rest     the stream
//
// Receiving, the stream is what the peer sends: what reaches the device file,
// whether the connection fails and the state it ends in must be exactly what
// one piece read by a prompt reader gives; a connection still open at the end
// closes when the peer does.  Sending, the stream is what a program writes to
// the device file of an established link: the peer must read data frames
// (1 to 1468 bytes of payload each) that carry exactly the stream, in order.
// Besides these checks, the sanitizers.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz_log.h"
#include "service/common.h"
#include "service/serial_frame.h"
#include "service/serial_link.h"

using namespace Zentrova::Iot::TransparentChannel;

namespace {

uint64_t g_ticks = 0;
uint64_t fuzz_clock() { return ++g_ticks; }

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz_serial_stream: %s\n", what);
  std::abort();
}

// The sizes of the input, in turn; without any, everything at once.
struct Sizes {
  std::vector<size_t> list;
  size_t turn = 0;
  size_t next(size_t all) { return list.empty() ? all : list[turn++ % list.size()]; }
};

// A socket pair: [0] the link's end (non-blocking), [1] the far end.
struct Pair {
  int fd[2] = {-1, -1};
  explicit Pair(bool small) {
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, fd) == 0, "socketpair");
    for (int f : fd) fcntl(f, F_SETFL, fcntl(f, F_GETFL) | O_NONBLOCK);
    // The kernel's smallest buffer: a few frames fill it.
    const int one = 1;
    if (small) setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &one, sizeof one);
  }
  ~Pair() {
    for (int f : fd) close(f);
  }
  // Up to `n` bytes from the far end; what came.
  size_t take(std::string& out, size_t n) {
    char buf[8192];
    size_t got = 0;
    while (got < n) {
      const ssize_t r = read(fd[1], buf, std::min(sizeof buf, n - got));
      if (r <= 0) break;
      out.append(buf, static_cast<size_t>(r));
      got += static_cast<size_t>(r);
    }
    return got;
  }
  // As much of `data` as fits; the count written.
  size_t give(const uint8_t* data, size_t len) {
    const ssize_t n = len ? write(fd[1], data, len) : 0;
    return n > 0 ? static_cast<size_t>(n) : 0;
  }
};

SerialDeviceConfig fuzz_config() {
  SerialDeviceConfig config;
  config.local_device = "/var/run/tc/ttyFuzz0";
  config.ip = "192.0.2.1";
  config.device = "ttyS0";
  config.parity = "N";
  return config;
}

// A link on `net` and `dev` in `state`; the request and the response are
// taken off the wire.
void bring_to(CSerialLink& link, Pair& net, int32_t state) {
  link.attach(net.fd[0]);
  if (state == kSerialIdle) return;
  link.deal_connect();
  std::string request;
  net.take(request, kConnectRequestSize);
  check(request.size() == kConnectRequestSize, "connect request not sent whole");
  if (state == kSerialAwaiting) return;
  uint8_t response[kConnectResponseMinSize];
  net.give(response, build_connect_response(0, "ok", response));
  check(link.deal_message() && link.state() == kSerialEstablished, "response not taken");
}

struct Received {
  std::string delivered;
  bool failed = false;  // closed before the peer closed
  int32_t state = kSerialIdle;
  bool operator==(const Received& o) const {
    return delivered == o.delivered && failed == o.failed && state == o.state;
  }
};

// The device file's end registered as the bridge's loop registers it.
struct Epoll {
  int fd = epoll_create1(EPOLL_CLOEXEC);
  explicit Epoll(int device_fd) { check(fd >= 0 && epoll_add(fd, device_fd) == 0, "epoll"); }
  ~Epoll() { close(fd); }
};

Received receive(int32_t state, const uint8_t* stream, size_t len, Sizes sizes, bool slow) {
  Pair net(false), dev(slow);
  Epoll epoll(dev.fd[0]);
  CSerialLink link(fuzz_config(), dev.fd[0], epoll.fd, &fuzz_clock);
  bring_to(link, net, state);
  Received out;
  bool open = true;
  for (size_t pos = 0; open && pos < len;) {
    const size_t piece = std::min(sizes.next(len), len - pos);
    pos += net.give(stream + pos, piece);
    open = link.deal_message();
    // The reader takes a little; the device file's writable edge follows.
    if (open) dev.take(out.delivered, slow ? sizes.next(SIZE_MAX) : SIZE_MAX);
    if (open) open = link.deal_device_room();
  }
  // The reader catches up with whatever is held.
  for (int rounds = 0; open && link.holding_peer(); ++rounds) {
    check(rounds < 100000, "held payloads never reached the device file");
    dev.take(out.delivered, SIZE_MAX);
    open = link.deal_device_room();
  }
  dev.take(out.delivered, SIZE_MAX);
  out.failed = !open;
  out.state = link.state();
  if (open) {
    shutdown(net.fd[1], SHUT_WR);
    check(!link.deal_message(), "connection survived the peer's close");
  }
  check(out.delivered.size() <= len, "more bytes delivered than received");
  return out;
}

// Payloads of the data frames in `wire`, which must hold nothing else.
std::string payloads(const std::string& wire) {
  std::string out;
  const auto* bytes = reinterpret_cast<const uint8_t*>(wire.data());
  for (size_t at = 0; at < wire.size();) {
    FrameHeader header{};
    check(examine_frame(bytes + at, wire.size() - at, header) == FrameCheck::complete, "frame cut or malformed");
    check(header.type == kFrameData && header.len > kFrameHeaderSize, "not a data frame");
    out.append(wire, at + kFrameHeaderSize, header.len - kFrameHeaderSize);
    at += header.len;
  }
  return out;
}

void send(const uint8_t* stream, size_t len, Sizes sizes, bool slow) {
  Pair net(slow), dev(false);
  Epoll epoll(dev.fd[0]);
  CSerialLink link(fuzz_config(), dev.fd[0], epoll.fd, &fuzz_clock);
  bring_to(link, net, kSerialEstablished);
  std::string wire;
  for (size_t pos = 0; pos < len;) {
    pos += dev.give(stream + pos, std::min(sizes.next(len), len - pos));
    check(link.deal_device_message(), "send failed");
    // The peer takes a little; the socket's writable edge follows.
    net.take(wire, slow ? sizes.next(SIZE_MAX) : SIZE_MAX);
    check(link.deal_socket_room(), "send failed");
  }
  // The peer catches up with whatever waits.
  for (int rounds = 0;; ++rounds) {
    check(rounds < 100000, "the device file's bytes never reached the peer");
    check(link.deal_socket_room() && link.deal_device_message(), "send failed");
    if (net.take(wire, SIZE_MAX) == 0) break;
  }
  check(payloads(wire) == std::string(reinterpret_cast<const char*>(stream), len),
        "the peer did not get the device file's bytes, in order");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz_log_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static const int32_t kStates[] = {kSerialAwaiting, kSerialIdle, kSerialEstablished};
  const int32_t state = kStates[(data[0] & 3) % 3];
  const bool slow_device = data[0] & 4;
  const bool slow_peer = data[0] & 8;
  Sizes sizes;
  size_t count = data[1] % 16;
  size_t pos = 2;
  if (count > size - pos) count = size - pos;
  for (size_t i = 0; i < count; ++i) sizes.list.push_back(static_cast<size_t>(data[pos + i]) + 1);
  pos += count;
  const uint8_t* stream = data + pos;
  const size_t len = size - pos;

  const Received split = receive(state, stream, len, sizes, slow_device);
  if (!sizes.list.empty() || slow_device) {
    check(split == receive(state, stream, len, Sizes{}, false), "the outcome depends on pieces or a slow reader");
  }
  send(stream, len, sizes, slow_peer);
  return 0;
}
