// The serial bridge's loop against in-test peers over real TCP, with real
// pseudo-terminals.  The remote port is fixed, so this runs in its own network
// namespace, one peer address per device (127.0.0.1, 127.0.0.2, ...).  The
// configuration is fed through callback_config; the clock is the real tick
// plus an offset that tests move forward to reach the 60 s and 30 s marks.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "common/platform/src/thread/Thread.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_service.h"
#include "tests/service/serial_test_peer.h"
#include "tests/support/device_file.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using Zentrova::Iot::Component::CConfigAgent;
using Zentrova::Iot::Component::CDBusChannel;
using Zentrova::Iot::DBus::CDBusMethodCall;
using Zentrova::Iot::DBus::CDBusMethodReturn;
using tc_test::Bytes;
using tc_test::DeviceFile;
using tc_test::LogCaptureScope;
using tc_test::PeerLink;
using tc_test::TestPeer;

namespace {

std::atomic<uint64_t> g_offset{0};
uint64_t test_clock() { return Zentrova::Iot::Platform::tickMs() + g_offset.load(); }

const std::string kGreen = "\033[32m[";
const std::string kYellow = "\033[33m[";

class SerialLoop : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/serial-loop-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    g_offset = 0;
    service.set_clock(&test_clock);
  }
  void TearDown() override {
    service.stop();
    std::string cmd = "rm -rf " + m_dir;
    ASSERT_EQ(system(cmd.c_str()), 0);
  }

  std::string path(int n) const { return m_dir + "/ttyV" + std::to_string(n); }
  // Device n bridges path(n) to ttyS<n> at 127.0.0.<n>.
  std::string item(int n, int baud = 9600) const {
    return "{\"local_device\":\"" + path(n) + "\",\"remote_device\":{\"ip\":\"127.0.0." + std::to_string(n) +
           "\",\"device\":\"ttyS" + std::to_string(n) + "\",\"baud_rate\":" + std::to_string(baud) +
           ",\"data_bit\":8,\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":0}}";
  }
  std::string settings(int n, int baud = 9600) const {
    return path(n) + " 127.0.0." + std::to_string(n) + ":ttyS" + std::to_string(n) + " " + std::to_string(baud) +
           ":8:1:N:0";
  }
  void configure(const std::string& value) {
    int result = 0;
    service.callback_config("gw_tc_serial_devices", value, result);
  }
  // The first list goes in before the thread starts: a change that lands
  // just after the first pass would reload again, and a reload sweeps again.
  void begin(const std::string& value) {
    configure(value);
    ASSERT_TRUE(service.start_thread());
  }
  std::string status() {
    CDBusMethodCall call("", "/iot/gateway/transparentchannel", "", "serial_port_connect_status");
    CDBusMethodReturn reply(call);
    bool send = true;
    channel.message_method(call, reply, send);
    std::string text = "<no reply>";
    reply.get_string(text);
    return text;
  }
  std::string line(int n, bool up) const {
    return (up ? kGreen : kYellow) + path(n) + "] <--> [127.0.0." + std::to_string(n) + ":ttyS" + std::to_string(n) +
           (up ? "], Connect Successfully\033[0m\n" : "], Connect Failed\033[0m\n");
  }
  bool wait_status(const std::string& expected, int timeout_ms = 5000) {
    for (int waited = 0; waited < timeout_ms; waited += 20) {
      if (status() == expected) return true;
      usleep(20000);
    }
    return false;
  }
  // The next connect sweep, and the keep-alive check with it.
  void advance(uint64_t ms) {
    g_offset += ms;
    service.wake();
  }
  bool is_link(int n) const {
    struct stat st {};
    return lstat(path(n).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
  }
  // A line that starts and ends as given, with the socket descriptor between.
  bool has_fd_line(const std::string& head, const std::string& tail) {
    for (const auto& l : log.lines()) {
      if (l.text.size() > head.size() + tail.size() && l.text.compare(0, head.size(), head) == 0 &&
          l.text.compare(l.text.size() - tail.size(), tail.size(), tail) == 0 &&
          l.text.find_first_not_of("0123456789", head.size()) == l.text.size() - tail.size()) {
        return true;
      }
    }
    return false;
  }

  LogCaptureScope log;
  CDBusChannel channel{"unix:path=/nonexistent", "iot.gateway.transparentchannel", "/iot/gateway/transparentchannel",
                       {}};
  CConfigAgent agent{&channel, "iot.gateway.transparentchannel"};
  CSerialService service{&channel, &agent};
  std::string m_dir;
};

TEST_F(SerialLoop, FramesInOneSegmentReachTheDeviceAndBytesComeBack) {
  EXPECT_EQ(status(), "");
  TestPeer peer("127.0.0.1");
  ASSERT_TRUE(peer.listening());
  begin("[" + item(1) + "]");
  ConnectRequest request{};
  std::unique_ptr<PeerLink> link = peer.establish(&request);
  ASSERT_TRUE(link);
  EXPECT_STREQ(request.device, "ttyS1");
  EXPECT_EQ(request.baud_rate, 9600u);
  ASSERT_TRUE(wait_status(line(1, true))) << status();
  EXPECT_TRUE(log.contains("add device, " + settings(1)));
  EXPECT_TRUE(has_fd_line("deal message, response code:0, message:ok, fd:",
                          ", local_device:" + path(1) + ", remote_device:127.0.0.1:ttyS1"));
  DeviceFile tty(path(1));
  ASSERT_GE(tty.fd(), 0);

  // Several frames in one segment; arbitrary splits are the fuzzer's job.
  Bytes batch = tc_test::make_frame(1, "");
  for (const char* part : {"ab", "cd"}) {
    const Bytes f = tc_test::make_frame(0, part);
    batch.insert(batch.end(), f.begin(), f.end());
  }
  ASSERT_TRUE(link->send_bytes(batch));
  EXPECT_EQ(tty.read(4, 10000), "abcd");
  ASSERT_TRUE(tty.write("up"));
  EXPECT_EQ(link->read_data(2), "up");
  EXPECT_EQ(log.count_prefix("deal error"), 0u);
  EXPECT_EQ(status(), line(1, true));
}

TEST_F(SerialLoop, MalformedFramesCloseOnlyThatConnection) {
  TestPeer peer("127.0.0.1");
  begin("[" + item(1) + "]");
  const std::string where = "remote_device:127.0.0.1:ttyS1";
  const std::string header = "deal message, message header error, magic: ";
  const std::string type = "deal message, message type error, magic: 0xa5, type: ";
  const struct {
    const char* name;
    bool answer_first;  // establish before sending the bad bytes
    Bytes bytes;
    std::string line;
  } cases[] = {  // both log forms in both states; each rule is in serial_frame_test
      {"bad magic", false, {0xA4, 0, 8, 0, 1, 2, 3, 4}, header + "0xa4, type: 0, len: 8"},
      {"len 1473", true, {0xA5, 0, 0xC1, 0x05}, header + "0xa5, type: 0, len: 1473"},
      {"data before the response", false, tc_test::make_frame(0, "x"), type + "0, len: 5"},
      {"second response", true, tc_test::make_frame(200, std::string(264, '\0')), type + "200, len: 268"},
  };
  ASSERT_TRUE(log.wait_for("add device, " + settings(1), 5000));
  DeviceFile tty(path(1));
  ASSERT_GE(tty.fd(), 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<PeerLink> link = peer.accept();
    ConnectRequest request{};
    ASSERT_TRUE(link && link->read_request(request));
    if (c.answer_first) {
      ASSERT_TRUE(link->send_response(0, "ok"));
      ASSERT_TRUE(wait_status(line(1, true)));
    }
    ASSERT_TRUE(link->send_bytes(c.bytes));
    EXPECT_TRUE(log.wait_for(c.line, 5000)) << log.dump();
    EXPECT_TRUE(link->wait_closed());
    EXPECT_TRUE(log.wait_for("deal error, " + settings(1), 5000));
    EXPECT_TRUE(wait_status(line(1, false)));
    EXPECT_TRUE(is_link(1));
    EXPECT_TRUE(tty.write("typed while down"));
    // The terminal hands the bytes on a moment later; they must meet the link down.
    usleep(200000);
    log.clear();
    advance(61000);
  }

  // A refusal ends the same way, with the remote side's reason in the log;
  // text that fills its frame without a terminator is printed up to the end.
  std::unique_ptr<PeerLink> link = peer.accept();
  ConnectRequest request{};
  ASSERT_TRUE(link && link->read_request(request));
  ASSERT_TRUE(link->send_response(5, std::string(288, 'r'), 300));
  EXPECT_TRUE(link->wait_closed());
  EXPECT_TRUE(has_fd_line("deal message, response code:5, message:" + std::string(288, 'r') + ", fd:",
                          ", local_device:" + path(1) + ", " + where))
      << log.dump();
  EXPECT_TRUE(is_link(1));

  // The data typed while down was dropped; what is typed now goes through.
  advance(61000);
  link = peer.establish();
  ASSERT_TRUE(link);
  ASSERT_TRUE(wait_status(line(1, true)));
  ASSERT_TRUE(tty.write("fresh"));
  EXPECT_EQ(link->read_data(5), "fresh");
}

TEST_F(SerialLoop, ChangingOneDeviceOfThreeLeavesTheOthersUp) {
  TestPeer peers[3] = {TestPeer("127.0.0.1"), TestPeer("127.0.0.2"), TestPeer("127.0.0.3")};
  begin("[" + item(1) + "," + item(2) + "," + item(3) + "]");
  std::unique_ptr<PeerLink> links[3];
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(links[i] = peers[i].establish());
  ASSERT_TRUE(wait_status(line(1, true) + line(2, true) + line(3, true))) << status();
  std::unique_ptr<DeviceFile> ttys[3];
  for (int i = 0; i < 3; ++i) ASSERT_GE((ttys[i] = std::make_unique<DeviceFile>(path(i + 1)))->fd(), 0);

  log.clear();
  configure("[" + item(1) + "," + item(2, 19200) + "," + item(3) + "]");
  EXPECT_TRUE(links[1]->wait_closed());
  ConnectRequest request{};
  std::unique_ptr<PeerLink> renewed = peers[1].establish(&request);
  ASSERT_TRUE(renewed);
  EXPECT_EQ(request.baud_rate, 19200u);
  // The re-made device joins the end of the list.
  EXPECT_TRUE(wait_status(line(1, true) + line(3, true) + line(2, true))) << status();
  EXPECT_EQ(log.count("delete device, " + settings(2)), 1u);
  EXPECT_EQ(log.count("add device, " + settings(2, 19200)), 1u);
  EXPECT_EQ(log.count_prefix("delete device"), 1u) << log.dump();
  EXPECT_EQ(log.count_prefix("add device"), 1u);

  // The untouched devices still carry data both ways on their first connection.
  ASSERT_TRUE(ttys[0]->write("one"));
  EXPECT_EQ(links[0]->read_data(3), "one");
  ASSERT_TRUE(links[2]->send_frame(0, "three"));
  EXPECT_EQ(ttys[2]->read(5, 10000), "three");
  ttys[1] = std::make_unique<DeviceFile>(path(2));  // the new link leads to the new device
  ASSERT_TRUE(ttys[1]->write("two"));
  EXPECT_EQ(renewed->read_data(3), "two");

  // A value that is not JSON takes every device and link away.
  configure("[{\"local_device\":");
  for (auto& link : {links[0].get(), renewed.get(), links[2].get()}) EXPECT_TRUE(link->wait_closed());
  EXPECT_TRUE(wait_status(""));
  for (int n = 1; n <= 3; ++n) EXPECT_FALSE(is_link(n)) << n;
  EXPECT_EQ(log.count_prefix("delete device"), 4u);
}

TEST_F(SerialLoop, SilentPeerIsReconnectedAtTheNextSweep) {
  TestPeer peer("127.0.0.1");
  begin("[" + item(1) + "]");
  std::unique_ptr<PeerLink> first = peer.accept();
  ConnectRequest request{};
  ASSERT_TRUE(first && first->read_request(request));
  EXPECT_TRUE(log.wait_for("deal connect, " + settings(1), 5000));
  EXPECT_EQ(status(), line(1, false));
  // No answer: nothing happens before the sweep...
  EXPECT_FALSE(first->wait_closed(1500));
  // ...which replaces the connection.
  advance(61000);
  EXPECT_TRUE(first->wait_closed());
  std::unique_ptr<PeerLink> second = peer.accept();
  ASSERT_TRUE(second && second->read_request(request));
  EXPECT_EQ(log.count("do connect, " + settings(1)), 2u);
}

TEST_F(SerialLoop, MissingKeepalivesDropTheLinkAfterThirtySeconds) {
  TestPeer peer("127.0.0.1");
  begin("[" + item(1) + "]");
  std::unique_ptr<PeerLink> link = peer.establish();
  ASSERT_TRUE(link);
  ASSERT_TRUE(wait_status(line(1, true)));
  const std::string interval = "check keepalive, [127.0.0.1:ttyS1] --> [" + path(1) + "], interval: 2";
  const std::string timeout = "check keepalive, keepalive timeout [127.0.0.1:ttyS1] --> [" + path(1) + "]";

  advance(25000);
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000)) << log.dump();
  ASSERT_TRUE(link->send_frame(1, ""));
  ASSERT_TRUE(log.wait_for("deal keepalive message, [127.0.0.1:ttyS1] --> [" + path(1) + "]", 5000));
  advance(25000);  // 50 s after the response, 25 s after the keep-alive
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000, 2)) << log.dump();
  EXPECT_EQ(log.count(timeout), 0u);
  EXPECT_FALSE(link->wait_closed(200));

  advance(11000);  // 36 s after the keep-alive
  EXPECT_TRUE(log.wait_for(timeout, 5000)) << log.dump();
  EXPECT_TRUE(link->wait_closed());
  EXPECT_TRUE(wait_status(line(1, false)));
  advance(61000);
  EXPECT_TRUE(peer.establish());
}

// Flow control and the keep-alive clock: a peer the service holds back (its
// device file is not read) is not silent, however long; a peer that takes
// nothing for 30 s while bytes wait for it is gone, keep-alives or not.
TEST_F(SerialLoop, HoldingThePeerBackIsNotSilenceButTakingNothingIs) {
  TestPeer peer("127.0.0.1");
  begin("[" + item(1) + "]");
  std::unique_ptr<PeerLink> link = peer.establish();
  ASSERT_TRUE(link);
  ASSERT_TRUE(wait_status(line(1, true)));
  DeviceFile tty(path(1));
  ASSERT_GE(tty.fd(), 0);
  std::string bytes(16 << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 1468);
  // Runs `write` over `bytes` in pieces; returns once it stopped making progress.
  std::atomic<size_t> done{0};
  auto start = [&](const std::function<bool(const std::string&)>& write) {
    done = 0;
    std::thread writer([&, write] {
      for (size_t at = 0; at < bytes.size() && write(bytes.substr(at, 1468)); at += 1468) done += 1468;
    });
    for (size_t seen = SIZE_MAX; seen != done.load();) {
      seen = done.load();
      usleep(300000);
    }
    EXPECT_LT(done.load(), bytes.size()) << "nothing held the writer back";
    return writer;
  };

  std::thread peer_writer = start([&](const std::string& piece) { return link->send_frame(0, piece); });
  advance(40000);
  EXPECT_FALSE(link->wait_closed(1000));
  EXPECT_TRUE(tty.read(bytes.size(), 10000) == bytes) << "bytes differ";
  peer_writer.join();

  std::thread device_writer = start([&](const std::string& piece) { return tty.write(piece); });
  advance(20000);
  EXPECT_TRUE(link->send_frame(1, ""));
  EXPECT_TRUE(log.wait_for("deal keepalive message, [127.0.0.1:ttyS1] --> [" + path(1) + "]", 5000));
  EXPECT_EQ(log.count_prefix("check keepalive, keepalive timeout"), 0u);
  advance(11000);
  EXPECT_TRUE(log.wait_for("check keepalive, keepalive timeout [127.0.0.1:ttyS1] --> [" + path(1) + "]", 5000));
  EXPECT_TRUE(link->wait_closed());
  device_writer.join();  // the rest is read and dropped with the link
  EXPECT_EQ(log.count_prefix("deal message, send_file error") + log.count_prefix("deal device message, send_tcp error"),
            0u);
}

}  // namespace
