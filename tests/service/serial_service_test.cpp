// The serial bridge's loop against a remote gateway played byte by byte over
// real TCP (malformed frames, silence and refusals at chosen moments), with
// real pseudo-terminals.  The remote port is fixed, so this runs in its own
// network namespace, one peer address per device (127.0.0.1, 127.0.0.2, ...).
// The clock is the real tick plus an offset the tests move to the 60 s and
// 30 s marks.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "common/platform/src/thread/Thread.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_frame.h"
#include "service/serial_service.h"
#include "tests/support/device_file.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using tc_test::DeviceFile;

namespace {

std::atomic<uint64_t> g_offset{0};
uint64_t test_clock() { return Zentrova::Iot::Platform::tickMs() + g_offset.load(); }

bool readable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

uint8_t* bytes(std::string& s) { return reinterpret_cast<uint8_t*>(&s[0]); }

std::string frame(uint8_t type, const std::string& payload, size_t len = 0) {
  std::string f = std::string(kFrameHeaderSize, '\0') + payload;
  write_frame_header(bytes(f), type, static_cast<uint16_t>(len ? len : f.size()));
  return f;
}

// One connection accepted by the remote gateway, read with time-outs.
struct Link {
  int fd;
  std::string held;
  ~Link() { close(fd); }
  bool send(const std::string& b) { return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }
  std::string next_frame(int ms = 10000) {
    char chunk[4096];
    for (ssize_t got = 0; held.size() < kFrameHeaderSize || held.size() < read_frame_header(bytes(held)).len;) {
      if (!readable(fd, ms) || (got = recv(fd, chunk, sizeof chunk, 0)) <= 0) return "";
      held.append(chunk, static_cast<size_t>(got));
    }
    const std::string f = held.substr(0, read_frame_header(bytes(held)).len);
    held.erase(0, f.size());
    return f;
  }
  bool read_request(ConnectRequest& out) {
    std::string f = next_frame();
    return read_connect_request(bytes(f), f.size(), out);
  }
  // Code and message in a response frame of `len` bytes; a message that fills it is not terminated.
  bool respond(int32_t code, const std::string& message, size_t len = kConnectResponseMinSize) {
    std::string f(len, '\0');
    build_connect_response(code, message.c_str(), bytes(f));
    f.replace(kResponseMessageOffset, message.size(), message);
    return send(frame(kFrameConnectResponse, f.substr(kFrameHeaderSize, len - kFrameHeaderSize)));
  }
  std::string data(size_t n) {
    std::string out;
    for (std::string f; out.size() < n && !(f = next_frame()).empty();) {
      if (f[1] == kFrameData) out += f.substr(kFrameHeaderSize);
    }
    return out;
  }
  bool closed(int ms = 5000) {
    char chunk[4096];
    while (readable(fd, ms)) {
      if (recv(fd, chunk, sizeof chunk, 0) <= 0) return true;
    }
    return false;
  }
};

// The remote gateway at 127.0.0.n:5656.
struct Peer {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  explicit Peer(int n) {
    sockaddr_in addr{AF_INET, htons(5656), {htonl(0x7f000000 + n)}, {}};
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) | listen(fd, 8), 0);
  }
  ~Peer() { close(fd); }
  std::unique_ptr<Link> accept(ConnectRequest* request = nullptr) {
    if (!readable(fd, 5000)) return nullptr;
    std::unique_ptr<Link> link(new Link{accept4(fd, nullptr, nullptr, SOCK_CLOEXEC), ""});
    const int one = 1;  // split sends reach the service as separate segments
    setsockopt(link->fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ConnectRequest ignored{};
    return link->read_request(request ? *request : ignored) ? std::move(link) : nullptr;
  }
  std::unique_ptr<Link> establish(ConnectRequest* request = nullptr) {
    auto link = accept(request);
    return link && link->respond(0, "ok") ? std::move(link) : nullptr;
  }
};

class SerialLoop : public testing::Test {
 protected:
  void SetUp() override { service.set_clock(&test_clock); }
  void TearDown() override { service.stop(); }

  std::string path(int n) const { return dir.file("ttyV" + std::to_string(n)); }
  std::string remote(int n) const { return "127.0.0." + std::to_string(n) + ":ttyS" + std::to_string(n); }
  std::string item(int n, int baud = 9600) const {
    return "{\"local_device\":\"" + path(n) + "\",\"remote_device\":{\"ip\":\"127.0.0." + std::to_string(n) +
           "\",\"device\":\"ttyS" + std::to_string(n) + "\",\"baud_rate\":" + std::to_string(baud) +
           ",\"data_bit\":8,\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":0}}";
  }
  std::string settings(int n, int baud = 9600) const {
    return path(n) + " " + remote(n) + " " + std::to_string(baud) + ":8:1:N:0";
  }
  void configure(const std::string& value) {
    int result = 0;
    service.callback_config("gw_tc_serial_devices", value, result);
  }
  // The first list goes in before the thread starts, so the first pass sees it.
  void begin(const std::string& value) {
    g_offset = 0;
    configure(value);
    ASSERT_TRUE(service.start_thread());
  }
  std::string status() {
    Zentrova::Iot::DBus::CDBusMethodCall call("", "/iot/gateway/transparentchannel", "", "serial_port_connect_status");
    Zentrova::Iot::DBus::CDBusMethodReturn reply(call);
    bool send = true;
    channel.message_method(call, reply, send);
    std::string text = "<no reply>";
    reply.get_string(text);
    return text;
  }
  std::string line(int n, bool up) const {
    return (up ? "\033[32m[" : "\033[33m[") + path(n) + "] <--> [" + remote(n) +
           (up ? "], Connect Successfully\033[0m\n" : "], Connect Failed\033[0m\n");
  }
  bool wait_status(const std::string& expected) {
    for (int i = 0; i < 250 && status() != expected; ++i) usleep(20000);
    return status() == expected;
  }
  void advance(uint64_t ms) {
    g_offset += ms;
    service.wake();
  }
  // The response line, the socket descriptor inside.
  bool response_logged(const std::string& code_and_message) {
    const std::string head = "deal message, response code:" + code_and_message + ", fd:";
    const std::string tail = ", local_device:" + path(1) + ", remote_device:" + remote(1);
    for (const auto& l : log.lines()) {
      const std::string& t = l.text;
      if (t.size() > head.size() + tail.size() && t.compare(0, head.size(), head) == 0 &&
          t.compare(t.size() - tail.size(), tail.size(), tail) == 0 &&
          t.find_first_not_of("0123456789", head.size()) == t.size() - tail.size())
        return true;
    }
    return false;
  }
  std::string keepalive(int n) { return "[" + remote(n) + "] --> [" + path(n) + "]"; }

  tc_test::LogCaptureScope log;
  tc_test::TempDir dir;
  Zentrova::Iot::Component::CDBusChannel channel{"unix:path=/nonexistent", "iot.gateway.transparentchannel",
                                                 "/iot/gateway/transparentchannel", {}};
  Zentrova::Iot::Component::CConfigAgent agent{&channel, "iot.gateway.transparentchannel"};
  CSerialService service{&channel, &agent};
};

// Data both ways, the 30 s keep-alive limit, and a peer that never answers.
TEST_F(SerialLoop, ALinkCarriesDataWhileKeepalivesComeAndASilentPeerIsReplacedAtTheSweep) {
  EXPECT_EQ(status(), "");
  Peer peer(1);
  begin("[" + item(1) + "]");
  ConnectRequest request{};
  std::unique_ptr<Link> link = peer.establish(&request);
  ASSERT_TRUE(link);
  EXPECT_EQ(std::string(request.device) + " " + std::to_string(request.baud_rate), "ttyS1 9600");
  ASSERT_TRUE(wait_status(line(1, true))) << status();
  EXPECT_TRUE(log.contains("add device, " + settings(1)));
  EXPECT_TRUE(response_logged("0, message:ok")) << log.dump();
  DeviceFile tty(path(1));
  ASSERT_TRUE(link->send(frame(1, "") + frame(0, "ab") + frame(0, "cd")));  // one segment
  EXPECT_EQ(tty.read(4, 10000), "abcd");
  ASSERT_TRUE(tty.write("up"));
  EXPECT_EQ(link->data(2), "up");

  const std::string interval = "check keepalive, " + keepalive(1) + ", interval: 2";
  const std::string timeout = "check keepalive, keepalive timeout " + keepalive(1);
  advance(25000);
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000)) << log.dump();
  ASSERT_TRUE(link->send(frame(1, "")));
  ASSERT_TRUE(log.wait_for("deal keepalive message, " + keepalive(1), 5000, 2));  // the first came with the data
  advance(25000);  // 25 s after the keep-alive
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000, 2)) << log.dump();
  EXPECT_FALSE(link->closed(200));
  advance(11000);  // 36 s after it
  EXPECT_TRUE(log.wait_for(timeout, 5000)) << log.dump();
  EXPECT_TRUE(link->closed());
  EXPECT_TRUE(wait_status(line(1, false)));

  advance(61000);
  ASSERT_TRUE(link = peer.accept());
  EXPECT_EQ(status(), line(1, false)) << "asked, not answered: not up";
  EXPECT_FALSE(link->closed(1500)) << "no answer: nothing happens before the sweep";
  advance(61000);
  EXPECT_TRUE(link->closed());
  EXPECT_TRUE(peer.establish());
  EXPECT_EQ(log.count("do connect, " + settings(1)), 3u);
}

TEST_F(SerialLoop, MalformedFramesAndRefusalsCloseTheConnectionAndKeepTheDevice) {
  Peer peer(1);
  begin("[" + item(1) + "]");
  const std::string header = "deal message, message header error, magic: ";
  const std::string type = "deal message, message type error, magic: 0xa5, type: ";
  const std::tuple<bool, std::string, std::string> cases[] = {  // answered first, bytes, line
      {false, std::string("\xA4\0\x08\0\1\2\3\4", 8), header + "0xa4, type: 0, len: 8"},
      {true, frame(0, "", 1473), header + "0xa5, type: 0, len: 1473"},
      {false, frame(0, "x"), type + "0, len: 5"},
      {true, frame(200, std::string(264, '\0')), type + "200, len: 268"},
  };
  ASSERT_TRUE(log.wait_for("add device, " + settings(1), 5000));
  DeviceFile tty(path(1));
  for (const auto& [answer_first, bad, text] : cases) {
    SCOPED_TRACE(text);
    std::unique_ptr<Link> link = answer_first ? peer.establish() : peer.accept();
    ASSERT_TRUE(link);
    ASSERT_TRUE(!answer_first || wait_status(line(1, true)));
    ASSERT_TRUE(link->send(bad));
    EXPECT_TRUE(log.wait_for(text, 5000)) << log.dump();
    EXPECT_TRUE(link->closed());
    EXPECT_TRUE(log.wait_for("deal error, " + settings(1), 5000));
    EXPECT_TRUE(wait_status(line(1, false)));
    EXPECT_TRUE(tc_test::path_exists(path(1)));
    EXPECT_TRUE(tty.write("typed while down"));
    usleep(200000);  // the terminal hands the bytes on a moment later: they meet the link down
    log.clear();
    advance(61000);
  }

  // The remote side's reason is logged, up to the frame's end when it fills it.
  std::unique_ptr<Link> link = peer.accept();
  ASSERT_TRUE(link && link->respond(5, std::string(288, 'r'), 300));
  EXPECT_TRUE(link->closed());
  EXPECT_TRUE(response_logged("5, message:" + std::string(288, 'r'))) << log.dump();
  EXPECT_TRUE(tc_test::path_exists(path(1)));

  // What was typed while down is dropped; what is typed now goes through.
  advance(61000);
  ASSERT_TRUE(link = peer.establish());
  ASSERT_TRUE(wait_status(line(1, true)));
  ASSERT_TRUE(tty.write("fresh"));
  EXPECT_EQ(link->data(5), "fresh");
}

TEST_F(SerialLoop, ChangingOneDeviceOfThreeLeavesTheOthersUp) {
  Peer peers[3] = {Peer(1), Peer(2), Peer(3)};
  begin("[" + item(1) + "," + item(2) + "," + item(3) + "]");
  std::unique_ptr<Link> links[3];
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(links[i] = peers[i].establish());
  ASSERT_TRUE(wait_status(line(1, true) + line(2, true) + line(3, true))) << status();

  log.clear();
  configure("[" + item(1) + "," + item(2, 19200) + "," + item(3) + "]");
  EXPECT_TRUE(links[1]->closed());
  ConnectRequest request{};
  ASSERT_TRUE(links[1] = peers[1].establish(&request));
  EXPECT_EQ(request.baud_rate, 19200u);
  // The re-made device joins the end of the list.
  EXPECT_TRUE(wait_status(line(1, true) + line(3, true) + line(2, true))) << status();
  EXPECT_EQ(log.count("delete device, " + settings(2)) + log.count("add device, " + settings(2, 19200)), 2u);
  EXPECT_EQ(log.count_prefix("delete device") + log.count_prefix("add device"), 2u) << log.dump();

  // The new link leads to the new device.  (Untouched devices carrying data
  // through changes of another is the soak's.)
  DeviceFile two(path(2));
  ASSERT_TRUE(two.write("two"));
  EXPECT_EQ(links[1]->data(3), "two");

  // A value that is not JSON takes every device and link away.
  configure("[{\"local_device\":");
  for (auto& link : links) EXPECT_TRUE(link->closed());
  EXPECT_TRUE(wait_status(""));
  for (int n = 1; n <= 3; ++n) EXPECT_FALSE(tc_test::path_exists(path(n))) << n;
  EXPECT_EQ(log.count_prefix("delete device"), 4u);
}

// A peer the service holds back (its device file is not read) is not silent,
// however long; a peer that takes nothing for 30 s while bytes wait is gone.
TEST_F(SerialLoop, HoldingThePeerBackIsNotSilenceButTakingNothingIs) {
  Peer peer(1);
  begin("[" + item(1) + "]");
  std::unique_ptr<Link> link = peer.establish();
  ASSERT_TRUE(link);
  ASSERT_TRUE(wait_status(line(1, true)));
  DeviceFile tty(path(1));
  std::string data(16 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 1468);
  // Runs `write` over `data` in pieces; returns once it stopped making progress.
  std::atomic<size_t> done{0};
  auto start = [&](const std::function<bool(const std::string&)>& write) {
    done = 0;
    std::thread writer([&, write] {
      for (size_t at = 0; at < data.size() && write(data.substr(at, 1468)); at += 1468) done += 1468;
    });
    for (size_t seen = SIZE_MAX; seen != done.load(); usleep(300000)) seen = done.load();
    EXPECT_LT(done.load(), data.size()) << "nothing held the writer back";
    return writer;
  };

  std::thread peer_writer = start([&](const std::string& piece) { return link->send(frame(0, piece)); });
  advance(40000);
  EXPECT_FALSE(link->closed(1000));
  EXPECT_TRUE(tty.read(data.size(), 10000) == data) << "bytes differ";
  peer_writer.join();

  std::thread device_writer = start([&](const std::string& piece) { return tty.write(piece); });
  advance(20000);
  EXPECT_TRUE(link->send(frame(1, "")));
  EXPECT_TRUE(log.wait_for("deal keepalive message, " + keepalive(1), 5000));
  EXPECT_EQ(log.count_prefix("check keepalive, keepalive timeout"), 0u);
  advance(11000);
  EXPECT_TRUE(log.wait_for("check keepalive, keepalive timeout " + keepalive(1), 5000));
  EXPECT_TRUE(link->closed());
  device_writer.join();  // the rest is read and dropped with the link
  EXPECT_EQ(log.count_prefix("deal message, send_file error"), 0u);
  EXPECT_EQ(log.count_prefix("deal device message, send_tcp error"), 0u);
}

}  // namespace
