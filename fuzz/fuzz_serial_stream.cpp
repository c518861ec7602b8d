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

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "service/common.h"
#include "service/serial_frame.h"
#include "service/serial_link.h"

using namespace Zentrova::Iot::TransparentChannel;

namespace {

uint64_t g_ticks = 0;
uint64_t fuzz_clock() { return ++g_ticks; }

// The sizes of the input, in turn; without any, everything at once.
struct Sizes {
  std::vector<size_t> list;
  size_t turn = 0;
  size_t next(size_t all) { return list.empty() ? all : list[turn++ % list.size()]; }
};

// A link between two socket pairs, net (its TCP socket) and dev (its device
// file, registered as the bridge's loop registers it): [0] the link's end,
// [1] the far end.  `small`: the kernel's smallest buffer on that end.
struct Rig {
  int net[2], dev[2];
  int epoll = epoll_create1(EPOLL_CLOEXEC);
  CSerialLink* link;
  Rig(int32_t state, bool small_net, bool small_dev) {
    for (int* fd : {net, dev}) {
      check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd) == 0, "socketpair");
      const int one = 1;
      if (fd == net ? small_net : small_dev) setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &one, sizeof one);
    }
    check(epoll >= 0 && epoll_add(epoll, dev[0]) == 0, "epoll");
    SerialDeviceConfig config;
    config.local_device = "/var/run/tc/ttyFuzz0";
    config.ip = "192.0.2.1";
    config.device = "ttyS0";
    config.parity = "N";
    link = new CSerialLink(config, dev[0], epoll, &fuzz_clock);
    // The request and the response are taken off the wire.
    link->attach(net[0]);
    if (state == kSerialIdle) return;
    link->deal_connect();
    std::string request;
    check(take(net, request, SIZE_MAX) == kConnectRequestSize, "connect request not sent whole");
    if (state == kSerialAwaiting) return;
    uint8_t response[kConnectResponseMinSize];
    give(net, response, build_connect_response(0, "ok", response));
    check(link->deal_message() && link->state() == kSerialEstablished, "response not taken");
  }
  ~Rig() {
    delete link;
    for (int fd : {net[0], net[1], dev[0], dev[1], epoll}) close(fd);
  }
  // Up to `n` bytes from the far end of `pair`; the count that came.
  static size_t take(int* pair, std::string& out, size_t n) {
    char buf[8192];
    size_t got = 0;
    for (ssize_t r = 1; got < n && r > 0; got += r > 0 ? static_cast<size_t>(r) : 0) {
      r = read(pair[1], buf, std::min(sizeof buf, n - got));
      if (r > 0) out.append(buf, static_cast<size_t>(r));
    }
    return got;
  }
  // As much of `data` as fits at the far end of `pair`; the count written.
  static size_t give(int* pair, const uint8_t* data, size_t len) {
    const ssize_t n = len ? write(pair[1], data, len) : 0;
    return n > 0 ? static_cast<size_t>(n) : 0;
  }
};

// Bytes delivered to the device file, whether the link closed before the
// peer did, and its state at the end.
using Received = std::tuple<std::string, bool, int32_t>;

Received receive(int32_t state, const uint8_t* stream, size_t len, Sizes sizes, bool slow) {
  Rig rig(state, false, slow);
  std::string delivered;
  bool open = true;
  for (size_t pos = 0; open && pos < len;) {
    pos += Rig::give(rig.net, stream + pos, std::min(sizes.next(len), len - pos));
    // The reader takes a little; the device file's writable edge follows.
    open = rig.link->deal_message();
    if (open) Rig::take(rig.dev, delivered, slow ? sizes.next(SIZE_MAX) : SIZE_MAX);
    if (open) open = rig.link->deal_device_room();
  }
  // The reader catches up with whatever is held.
  for (int rounds = 0; open && rig.link->holding_peer(); ++rounds) {
    check(rounds < 100000, "held payloads never reached the device file");
    Rig::take(rig.dev, delivered, SIZE_MAX);
    open = rig.link->deal_device_room();
  }
  Rig::take(rig.dev, delivered, SIZE_MAX);
  const int32_t end = rig.link->state();
  if (open) {
    shutdown(rig.net[1], SHUT_WR);
    check(!rig.link->deal_message(), "connection survived the peer's close");
  }
  check(delivered.size() <= len, "more bytes delivered than received");
  return {delivered, !open, end};
}

void send(const uint8_t* stream, size_t len, Sizes sizes, bool slow) {
  Rig rig(kSerialEstablished, slow, false);
  std::string wire;
  for (size_t pos = 0; pos < len;) {
    pos += Rig::give(rig.dev, stream + pos, std::min(sizes.next(len), len - pos));
    check(rig.link->deal_device_message(), "send failed");
    // The peer takes a little; the socket's writable edge follows.
    Rig::take(rig.net, wire, slow ? sizes.next(SIZE_MAX) : SIZE_MAX);
    check(rig.link->deal_socket_room(), "send failed");
  }
  // The peer catches up with whatever waits.
  for (int rounds = 0;; ++rounds) {
    check(rounds < 100000, "the device file's bytes never reached the peer");
    check(rig.link->deal_socket_room() && rig.link->deal_device_message(), "send failed");
    if (Rig::take(rig.net, wire, SIZE_MAX) == 0) break;
  }
  // Data frames only, none cut, carrying the stream in order.
  std::string payloads;
  const auto* bytes = reinterpret_cast<const uint8_t*>(wire.data());
  FrameHeader header{};
  for (size_t at = 0; at < wire.size(); at += header.len) {
    check(examine_frame(bytes + at, wire.size() - at, header) == FrameCheck::complete, "frame cut or malformed");
    check(header.type == kFrameData && header.len > kFrameHeaderSize, "not a data frame");
    payloads.append(wire, at + kFrameHeaderSize, header.len - kFrameHeaderSize);
  }
  check(payloads == std::string(reinterpret_cast<const char*>(stream), len),
        "the peer did not get the device file's bytes, in order");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_quiet_log();
  if (size < 2) return 0;
  static const int32_t kStates[] = {kSerialAwaiting, kSerialIdle, kSerialEstablished};
  const int32_t state = kStates[(data[0] & 3) % 3];
  const bool slow_device = data[0] & 4;
  Sizes sizes;
  const size_t count = std::min<size_t>(data[1] % 16, size - 2);
  for (size_t i = 0; i < count; ++i) sizes.list.push_back(static_cast<size_t>(data[2 + i]) + 1);
  const uint8_t* stream = data + 2 + count;
  const size_t len = size - 2 - count;

  const Received split = receive(state, stream, len, sizes, slow_device);
  if (!sizes.list.empty() || slow_device) {
    check(split == receive(state, stream, len, Sizes{}, false), "the outcome depends on pieces or a slow reader");
  }
  send(stream, len, sizes, data[0] & 8);
  return 0;
}
