// The serial bridge's loop against tc-serial-peer, the remote gateway,
// misbehaving on cue (refusals, silence, malformed frames on SIGUSR1), and
// its serial ports played by pseudo-terminals.  The remote port is fixed, so
// this runs in its own network namespace; the peer serves 127.0.0.n, one
// address per device.  The clock is the real tick plus an offset the tests
// move to the 60 s and 30 s marks.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/platform/src/thread/Thread.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_service.h"
#include "tests/support/child_process.h"
#include "tests/support/device_file.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using tc_test::ChildProcess;
using tc_test::DeviceFile;

namespace {

std::atomic<uint64_t> g_offset{0};
uint64_t test_clock() { return Zentrova::Iot::Platform::tickMs() + g_offset.load(); }

// Our own descriptors: a socket or a pseudo-terminal left open shows here.
size_t open_fds() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// A fresh pseudo-terminal's master and its slave's name.
std::pair<int, std::string> open_pair() {
  int master = -1, slave = -1;
  char name[256] = {};
  if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return {-1, ""};
  close(slave);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(master, F_SETFL, O_NONBLOCK);
  return {master, name};
}
// A terminal end the test holds: by default a serial port of the remote
// gateway, whose slave the peer opens by `path`.
struct Terminal : DeviceFile {
  explicit Terminal(std::pair<int, std::string> fd_path = open_pair())
      : DeviceFile(fd_path.first), path(fd_path.second) {}
  std::string path;
};

std::unique_ptr<ChildProcess> start_peer(std::vector<std::string> options = {}) {
  options.insert(options.begin(), {TC_BINARY_DIR "/tools/tc-serial-peer/tc-serial-peer", "--keepalive", "0",
                                   "--allow", "/dev/pts/*"});
  auto peer = std::make_unique<ChildProcess>(options);
  EXPECT_TRUE(peer->wait_for_line("listening on", 10000)) << peer->output();
  return peer;
}

class SerialLoop : public testing::Test {
 protected:
  void SetUp() override { service.set_clock(&test_clock); }
  void TearDown() override { service.stop(); }

  std::string path(int n) const { return dir.file("ttyV" + std::to_string(n)); }
  std::string remote(int n) const { return "127.0.0." + std::to_string(n) + ":" + ports[n - 1].path; }
  std::string item(int n, int baud = 9600) const {
    return "{\"local_device\":\"" + path(n) + "\",\"remote_device\":{\"ip\":\"127.0.0." + std::to_string(n) +
           "\",\"device\":\"" + ports[n - 1].path + "\",\"baud_rate\":" + std::to_string(baud) +
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
  std::string keepalive(int n) { return "[" + remote(n) + "] --> [" + path(n) + "]"; }

  tc_test::LogCaptureScope log;
  tc_test::TempDir dir;
  Terminal ports[3];
  Zentrova::Iot::Component::CDBusChannel channel{"unix:path=/nonexistent", "iot.gateway.transparentchannel",
                                                 "/iot/gateway/transparentchannel", {}};
  Zentrova::Iot::Component::CConfigAgent agent{&channel, "iot.gateway.transparentchannel"};
  CSerialService service{&channel, &agent};
};

// One link through a peer after another: data both ways through a device
// file left as it was created, keep-alives and the 30 s limit; malformed
// frames on cue and a refusal; a peer that never answers.
TEST_F(SerialLoop, ALinkOutlivesPeersThatFallSilentSendGarbageRefuseOrNeverAnswer) {
  EXPECT_EQ(status(), "");
  auto peer = start_peer({"--keepalive", "1", "--fault", "stall", "--fault-chance", "0"});
  begin("[" + item(1) + "]");
  ASSERT_TRUE(wait_status(line(1, true))) << status();
  EXPECT_TRUE(log.contains("add device, " + settings(1)));
  // The request as the peer read it.
  EXPECT_EQ(log.count_prefix("deal message, response code:0, message:opened " + ports[0].path + " 9600 8N1, fd:"), 1u);
  {
    // No raw mode: the echo the service turned off must not send bytes back.
    Terminal tty({open(path(1).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), path(1)});
    ASSERT_TRUE(ports[0].write("ping\n"));
    EXPECT_EQ(tty.read(5, 10000), "ping\n");
    ASSERT_TRUE(tty.write("pong"));
    EXPECT_EQ(ports[0].read(4, 10000), "pong");
  }

  // Keep-alives every second; 25 s on, a fresh one; then none (SIGUSR1 stalls them).
  const std::string interval = "check keepalive, " + keepalive(1) + ", interval: 2";
  advance(25000);
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000)) << log.dump();
  const size_t seen = log.count("deal keepalive message, " + keepalive(1));
  ASSERT_TRUE(log.wait_for("deal keepalive message, " + keepalive(1), 5000, seen + 1));
  ASSERT_TRUE(peer->signal(SIGUSR1) && peer->wait_for_line("no more keep-alives", 5000));
  advance(25000);  // 25 s after the keep-alive
  EXPECT_TRUE(log.wait_for_prefix(interval, 5000, 2)) << log.dump();
  EXPECT_FALSE(peer->wait_for_line("closed by the client", 300));
  advance(11000);  // 36 s after it
  EXPECT_TRUE(log.wait_for("check keepalive, keepalive timeout " + keepalive(1), 5000)) << log.dump();
  EXPECT_TRUE(peer->wait_for_line("closed by the client", 5000));

  // Each closes the connection (before the peer does) and keeps the device;
  // the reason is logged up to the frame's end when it fills it.
  const std::string reason(288, 'r');
  const std::tuple<std::vector<std::string>, bool, std::string> peers[] = {  // options, cue, line
      {{"--fault", "garbage", "--fault-chance", "0"}, true, "deal message, message header error, magic: 0x5a, type: "},
      {{"--fault", "stray", "--fault-chance", "0"}, true, "deal message, message type error, magic: 0xa5, type: 200"},
      {{"--answer", "5:" + reason}, false, "deal message, response code:5, message:" + reason + ", fd:"},
  };
  DeviceFile tty(path(1));
  for (const auto& [options, cue, text] : peers) {
    SCOPED_TRACE(text);
    peer.reset();  // the next takes its port
    peer = start_peer(options);
    log.clear();
    advance(61000);
    ASSERT_TRUE(!cue || (wait_status(line(1, true)) && peer->signal(SIGUSR1)));
    EXPECT_TRUE(log.wait_for_prefix(text, 5000)) << log.dump();
    EXPECT_TRUE(log.wait_for("deal error, " + settings(1), 5000));
    EXPECT_EQ(log.count_prefix("deal message, connection closed by the peer"), 0u);
    EXPECT_TRUE(wait_status(line(1, false)));
    EXPECT_TRUE(tc_test::path_exists(path(1)));
    EXPECT_TRUE(tty.write("typed while down"));
    usleep(200000);  // the terminal hands the bytes on a moment later: they meet the link down
  }

  peer.reset();
  peer = start_peer({"--answer", "none"});
  advance(61000);
  ASSERT_TRUE(peer->wait_for_line("left unanswered", 5000)) << peer->output();
  const size_t fds = open_fds();
  EXPECT_EQ(status(), line(1, false)) << "asked, not answered: not up";
  EXPECT_FALSE(peer->wait_for_line("closed by the client", 1500)) << "no answer: nothing happens before the sweep";
  advance(61000);
  EXPECT_TRUE(peer->wait_for_line("closed by the client", 5000));
  EXPECT_TRUE(peer->wait_for_line("left unanswered", 5000, 2));
  EXPECT_EQ(open_fds(), fds) << "the replaced connection's socket is closed";

  // What was typed while down is dropped; what is typed now goes through.
  peer.reset();
  peer = start_peer();
  advance(61000);
  ASSERT_TRUE(wait_status(line(1, true)));
  ASSERT_TRUE(tty.write("fresh"));
  EXPECT_EQ(ports[0].read(5, 10000), "fresh");
  EXPECT_EQ(log.count("do connect, " + settings(1)), 4u);
}

TEST_F(SerialLoop, ChangingOneDeviceOfThreeLeavesTheOthersUp) {
  auto peer = start_peer();
  begin("[" + item(1) + "," + item(2) + "," + item(3) + "]");
  ASSERT_TRUE(wait_status(line(1, true) + line(2, true) + line(3, true))) << status();

  log.clear();
  const size_t fds = open_fds();
  configure("[" + item(1) + "," + item(2, 19200) + "," + item(3) + "]");
  EXPECT_TRUE(peer->wait_for_line("opened " + ports[1].path + " 19200 8N1", 5000)) << peer->output();
  // The re-made device joins the end of the list.
  EXPECT_TRUE(wait_status(line(1, true) + line(3, true) + line(2, true))) << status();
  EXPECT_EQ(peer->count_lines("closed by the client"), 1u) << peer->output();
  EXPECT_EQ(open_fds(), fds) << "the old device file and socket are closed";
  EXPECT_EQ(log.count("delete device, " + settings(2)) + log.count("add device, " + settings(2, 19200)), 2u);
  EXPECT_EQ(log.count_prefix("delete device") + log.count_prefix("add device"), 2u) << log.dump();

  // The new link leads to the new device.  (Untouched devices carrying data
  // through changes of another is the soak's; an empty list, the end-to-end
  // traffic test's.)
  DeviceFile two(path(2));
  ASSERT_TRUE(two.write("two"));
  EXPECT_EQ(ports[1].read(3, 10000), "two");
}

// A peer the service holds back (nobody reads its device file) is not
// silent, however long; a peer that takes nothing (nobody reads its port)
// for 30 s while bytes wait is gone, keep-alives or not.
TEST_F(SerialLoop, HoldingThePeerBackIsNotSilenceButTakingNothingIs) {
  auto peer = start_peer({"--keepalive", "1"});
  begin("[" + item(1) + "]");
  ASSERT_TRUE(wait_status(line(1, true)));
  std::string data(16 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 1468);
  const std::string first = data.substr(0, 1 << 20);
  std::thread remote([&] { ports[0].write(first, 30000); });
  usleep(300000);  // it reaches the service, which keeps it and leaves the keep-alives in TCP
  advance(40000);
  EXPECT_FALSE(log.wait_for_prefix("check keepalive, keepalive timeout", 1000));
  // Opened at last, the device file takes runs in part: they resume where they stopped.
  DeviceFile tty(path(1));
  EXPECT_TRUE(tty.read(first.size(), 30000) == first) << "bytes differ";
  remote.join();

  std::atomic<size_t> done{0};
  std::thread writer([&] {
    for (size_t at = 0; at < data.size() && tty.write(data.substr(at, 1468), 30000); at += 1468) done += 1468;
  });
  // Returns once the writer stopped making progress.
  auto settle = [&] {
    for (size_t seen = SIZE_MAX; seen != done.load(); usleep(300000)) seen = done.load();
    EXPECT_LT(done.load(), data.size()) << "nothing held the writer back";
  };
  settle();
  // What the stalled peer takes in the end comes whole and in order.
  EXPECT_TRUE(ports[0].read(first.size(), 30000) == first) << "bytes differ";
  settle();
  advance(20000);
  const size_t seen = log.count("deal keepalive message, " + keepalive(1));
  EXPECT_TRUE(log.wait_for("deal keepalive message, " + keepalive(1), 5000, seen + 1));
  EXPECT_EQ(log.count_prefix("check keepalive, keepalive timeout"), 0u);
  advance(11000);
  EXPECT_TRUE(log.wait_for("check keepalive, keepalive timeout " + keepalive(1), 5000));
  EXPECT_TRUE(wait_status(line(1, false)));
  writer.join();  // the rest is read and dropped with the link
  EXPECT_EQ(log.count_prefix("deal message, send_file error"), 0u);
  EXPECT_EQ(log.count_prefix("deal device message, send_tcp error"), 0u);
}

}  // namespace
