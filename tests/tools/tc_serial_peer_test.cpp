// tc-serial-peer as a child process against a raw test client, with
// pseudo-terminals standing in for the remote serial ports.  Isolated: the
// port is fixed.  The peer in front of the service's bridge is in tests/e2e.

#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/platform/src/thread/Thread.h"
#include "service/serial_device_config.h"
#include "service/serial_frame.h"
#include "tests/e2e/remote_port.h"
#include "tests/service/serial_test_peer.h"
#include "tests/support/child_process.h"

using namespace Zentrova::Iot::TransparentChannel;
using tc_test::Bytes;
using tc_test::ChildProcess;
using tc_test::PeerLink;

namespace {

const std::string kPeer = TC_BINARY_DIR "/tools/tc-serial-peer/tc-serial-peer";

// The pseudo-terminals of the tests are allowed unless `allow_pts` is false.
std::unique_ptr<ChildProcess> run_peer(std::vector<std::string> args, bool allow_pts = true) {
  if (allow_pts) args.insert(args.begin(), {"--allow", "/dev/pts/*"});
  args.insert(args.begin(), kPeer);
  auto peer = std::make_unique<ChildProcess>(args);
  EXPECT_TRUE(peer->wait_for_line("listening on", 10000)) << peer->output();
  return peer;
}

Bytes request(const std::string& device, uint32_t baud = 115200, int data_bit = 8, int stop_bit = 1,
              const std::string& parity = "N", int flow = 0) {
  SerialDeviceConfig c;
  c.device = device;
  c.baud_rate = baud;
  c.data_bit = static_cast<int8_t>(data_bit);
  c.stop_bit = static_cast<int8_t>(stop_bit);
  c.parity = parity;
  c.flow_control = static_cast<int8_t>(flow);
  Bytes frame(kConnectRequestSize);
  build_connect_request(c, frame.data());
  return frame;
}

// Sends the request and reads the answer: its code and message.
std::unique_ptr<PeerLink> open_port(const Bytes& req, int32_t& code, std::string& message) {
  auto link = tc_test::connect_to("127.0.0.1", 5656);
  Bytes answer;
  code = -1000;
  if (!link || !link->send_bytes(req) || !link->read_frame(answer) || answer[1] != kFrameConnectResponse) {
    return nullptr;
  }
  char text[kFrameMaxSize];
  read_connect_response(answer.data(), answer.size(), code, text, sizeof text);
  message = text;
  return link;
}

TEST(SerialPeer, OpensThePortAsAskedAndSendsKeepalives) {
  auto peer = run_peer({"--bind", "127.0.0.1", "--keepalive", "1"});
  e2e::RemotePort port;
  int32_t code = 0;
  std::string message;
  auto link = open_port(request(port.path(), 19200, 7, 2, "E", 1), code, message);
  ASSERT_TRUE(link);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(message, "opened " + port.path() + " 19200 7E2 rtscts");

  // The master reports the slave's settings; a pseudo-terminal keeps the
  // speed, stop bits and flow control but always says 8 bits, no parity.
  termios tio{};
  ASSERT_EQ(tcgetattr(port.fd(), &tio), 0);
  EXPECT_EQ(cfgetospeed(&tio), B19200);
  EXPECT_EQ(cfgetispeed(&tio), B19200);
  EXPECT_TRUE(tio.c_cflag & CSTOPB);
  EXPECT_TRUE(tio.c_cflag & CRTSCTS);
  EXPECT_FALSE(tio.c_lflag & (ICANON | ECHO));

  // Relaying is shown end to end (tests/e2e) and per connection below.
  // Keep-alives come on their own, about a second apart.
  Bytes f;
  std::vector<uint64_t> at;
  while (at.size() < 2 && link->read_frame(f, 5000)) {
    if (f[1] == kFrameKeepalive) at.push_back(Zentrova::Iot::Platform::tickMs());
  }
  ASSERT_EQ(at.size(), 2u);
  EXPECT_GE(at[1] - at[0], 500u);
}

// Nothing is opened that the patterns do not allow, whatever the path says,
// and only an allowed path tells whether it exists.  The default allows
// serial ports: neither pseudo-terminals nor consoles.
TEST(SerialPeer, RefusalsCarryTheReason) {
  e2e::RemotePort port;
  char dir_template[] = "/tmp/tc-peer-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir_template));
  const std::string dir = dir_template;
  ASSERT_EQ(symlink("/etc/passwd", (dir + "/passwd").c_str()), 0);
  ASSERT_EQ(symlink(port.path().c_str(), (dir + "/serial").c_str()), 0);
  ASSERT_TRUE(std::ofstream(dir + "/plain") << "x");
  const std::string refused = ": not an allowed serial port";
  struct Case {
    Bytes req;
    int32_t code;
    std::string message;
  };
  const struct {
    std::vector<std::string> allow;
    std::vector<Case> cases;
  } policies[] = {
      {{"--allow", "/dev/pts/*", "--allow", "/dev/null", "--allow", dir + "/*"},
       {
           {request(dir + "/missing"), 2, dir + "/missing: No such file or directory"},
           {request("tc-no-such-port"), 13, "/dev/tc-no-such-port" + refused},
           {request("/dev/null"), 25, "/dev/null: Inappropriate ioctl for device"},
           {request("../../etc/shadow"), 13, "/dev/../../etc/shadow" + refused},
           {request("/dev/pts/../watchdog"), 13, "/dev/pts/../watchdog" + refused},
           {request("/dev/vda"), 13, "/dev/vda" + refused},
           {request(dir + "/passwd"), 13, dir + "/passwd" + refused + " (/etc/passwd)"},
           {request(dir + "/plain"), 13, dir + "/plain: not a character device"},
           {request(port.path(), 12345), 22, "unsupported baud rate 12345"},
           {request(port.path(), 9600, 9), 22, "unsupported data bits 9"},
           {request(port.path(), 9600, 8, 3), 22, "unsupported stop bits 3"},
           {request(port.path(), 9600, 8, 1, "M"), 22, "unsupported parity"},
       }},
      {{},
       {
           {request(port.path()), 13, port.path() + refused},
           {request(dir + "/serial"), 13, dir + "/serial" + refused + " (" + port.path() + ")"},
           {request("/dev/tty"), 13, "/dev/tty: a console, not a serial port"},
           {request("ttyNoSuchPort"), 2, "/dev/ttyNoSuchPort: No such file or directory"},
       }},
  };
  for (const auto& policy : policies) {
    auto peer = run_peer(policy.allow, false);
    for (const auto& c : policy.cases) {
      int32_t code = 0;
      std::string message;
      auto link = open_port(c.req, code, message);
      ASSERT_TRUE(link) << c.message;
      EXPECT_EQ(code, c.code) << c.message;
      EXPECT_EQ(message, c.message);
      EXPECT_TRUE(link->wait_closed());
    }
  }
  std::filesystem::remove_all(dir);
}

TEST(SerialPeer, GarbageFaultBreaksTheStream) {
  auto peer = run_peer({"--bind", "127.0.0.1", "--fault", "garbage", "--fault-chance", "100", "--seed", "1"});
  e2e::RemotePort port;
  int32_t code = -1;
  std::string message;
  auto link = open_port(request(port.path()), code, message);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->read_bytes(16, 5000).at(0), 0x5A);  // not a frame: no magic
  EXPECT_TRUE(peer->wait_for_line("inject_faults, garbage to fd", 1000));
}

}  // namespace
